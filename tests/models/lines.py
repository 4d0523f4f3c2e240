"""How keyword lines of a file are changed. Files are arrays of lines without their newlines."""


def set_line(lines, keyword, value):
    """Adds or replaces a keyword's line. Several "Port" lines may exist. Returns whether the file changed."""
    wanted = f"{keyword} {value}"
    for index, line in enumerate(lines):
        if not line.startswith(keyword):
            continue
        if line == wanted:
            return False
        if keyword != "Port":
            lines[index] = wanted
            return True
    lines.append(wanted)
    return True


def remove_line(lines, keyword, value=None):
    """Removes a keyword's first line; of "Port" lines, the first that begins with the given value's line."""
    start = f"{keyword} {value}" if keyword == "Port" else keyword
    for index, line in enumerate(lines):
        if line.startswith(start):
            del lines[index]
            return True
    return False


def set_lines(lines, keyword, values):
    """Puts a line for each of the values, separated by commas, to the end of the file."""
    before = [line.split()[1] for line in lines if line.startswith(keyword)]
    lines[:] = [line for line in lines if not line.startswith(keyword)]
    for index, value in enumerate(values.split(",")):
        lines.append(f"{keyword} {' ' if index == 0 else ''}{value}")
    return ",".join(before) != values


def one_form(lines):
    """The lines for comparisons in which order, blanks and the form of host keys do not count."""
    result = []
    for line in lines:
        words = line.split()
        values = words[1].split(",") if words[:1] == ["HostKey"] else [" ".join(words[1:])]
        result += [f"{words[0]} {value}" for value in values]
    return sorted(result)
