"""The text of rule files: what an access list becomes in a VRF, and which rules the kernel then has.

Lists are arrays of records with the field names of the access-list service, fields that are omitted being zero.
"""

import ipaddress
import socket

SSH_IPV4, NETCONF_IPV4, SSH_IPV6, NETCONF_IPV6, ALL = range(5)
TABLES = ["norvossh_v4acl", "netconf_v4acl", "norvossh_v6acl", "netconf_v6acl", "norvossh_acl_all"]
PORTS = [22, 830, 22, 830]
FOLDER = "/tmp/norvo-ssh/access-list/"
RULE_BYTES = 600

# The port that a destination condition is compared with. IPv6 lists for SSH are compared with NETCONF's port, too.
COMPARED_PORTS = [22, 830, 830, 830]

ACTIONS = {"permit": "accept ", "deny": "drop "}
EQ, GT, LT, NE, RANGE = range(1, 6)


def path_of(vrf, kind):
    return f"{FOLDER}vrf-{vrf}_{TABLES[kind]}.nft"


def is_ipv6(kind):
    return kind in (SSH_IPV6, NETCONF_IPV6)


def family(kind):
    return "ip6" if is_ipv6(kind) else "ip"


def flush_text(kind):
    return f"flush table {family(kind)} {TABLES[kind]}\n\n"


def header(kind):
    return (f"{flush_text(kind)}table {family(kind)} {TABLES[kind]} {{\n"
            "        chain input {\n"
            "                type filter hook input priority 0; policy accept;\n"
            "               ct state established accept\n")


def footer(kind):
    if is_ipv6(kind):
        rule = f"ip6 saddr & :: == :: ip6 daddr & :: == :: tcp dport {PORTS[kind]} drop"
    else:
        rule = f"ip saddr & 0.0.0.0 == 0.0.0.0 ip daddr & 0.0.0.0 == 0.0.0.0  tcp dport {PORTS[kind]} drop"
    return f"        {rule}\n        }}\n}}\n"


def list_text(kind, entries):
    """The file of a list with these entries."""
    lines = [line_of(entry, kind) for entry in sorted(entries, key=lambda entry: entry["SequenceNumber"])]
    return header(kind) + "".join(line + "\n" for line in lines if line is not None) + footer(kind)


def empty_tables_text():
    names = (("ip", SSH_IPV4), ("ip6", SSH_IPV6), ("ip", NETCONF_IPV4), ("ip6", NETCONF_IPV6))
    return "".join(f"table {protocol} {TABLES[kind]} {{\n}}\n" for protocol, kind in names)


def load(tables, text):
    """Changes the kernel's tables, a dictionary of rule arrays, as nft does with such a file."""
    table = None
    for line in text.splitlines():
        words = line.split()
        if words[:2] == ["flush", "table"]:
            assert words[3] in tables, f"nft would refuse to flush {words[3]}, which does not exist"
            tables[words[3]] = []
        elif words[:1] == ["table"]:
            table = tables.setdefault(words[2], [])
        elif words and words != ["}"] and words[0] not in ("chain", "type"):
            table.append(line)


# One entry


def line_of(entry, kind):
    """The line of an entry, or None if it has none."""
    line = _ipv6_line(entry, kind) if is_ipv6(kind) else _ipv4_line(entry, kind)
    return line[:RULE_BYTES - 1] if line is not None else None


def _ipv4_line(entry, kind):
    number = entry.get
    if not _is_filtered(number("ProtocolOperator", 0), number("Protocol", 0), 512):
        return None
    source = _ipv4_address("saddr", entry.get("SourceAddress", "0.0.0.0"), entry.get("SourceAddressMask", "0.0.0.0"))
    target = _ipv4_address("daddr", entry.get("DestinationAddress", "0.0.0.0"),
                           entry.get("DestinationAddressMask", "0.0.0.0"))
    if source is None or target is None:
        return None
    port = _destination_port(number("DestinationOperator", 0), number("DestinationPort1", 0), kind)
    if port is None:
        return None
    pieces = [" " * 16, source]
    pieces.append(_ports("tcp sport", number("SourceOperator", 0), number("SourcePort1", 0), number("SourcePort2", 0)))
    pieces += [target, port[0]]
    pieces.append(_tcp_flags(number("TCPFlagsOperator", 0), number("TCPFlags", 0), number("TCPFlagsMask", 0)))
    if entry.get("DSCPPresent"):
        pieces.append(_dscp("ip dscp", number("DSCPOperator", 0), number("DSCP", 0), number("DSCP2", 0)))
    pieces.append(_ports("ip length", number("PacketLengthOperator", 0), number("PacketLength1", 0),
                         number("PacketLength2", 0)))
    pieces.append(_ports("ip ttl", number("TTLOperator", 0), number("TTL1", 0), number("TTL2", 0)))
    pieces.append(_ports("ip frag-off", number("FragmentOffsetOperator", 0), number("FragmentOffset1", 0),
                         number("FragmentOffset2", 0)))
    pieces += ["log " if number("LogOption", 0) == 1 else "", "counter " if entry.get("CounterName") else ""]
    return "".join(pieces) + port[1] + ACTIONS.get(entry.get("Grant", "deny"), "")


def _ipv6_line(entry, kind):
    number = entry.get
    if not _is_filtered(number("IsProtocolOperator", 0), number("IsIPV6ProtocolType", 0), 513):
        return None
    port = _destination_port(number("IsDestinationOperator", 0), number("IsDestinationPort1", 0), kind)
    if port is None:
        return None
    pieces = [_ipv6_address("saddr", entry, "IsSourceAddressInNumbers", "SourceMask", "IsSourceAddressPrefixLength")]
    pieces.append(_ports("tcp sport", number("IsSourceOperator", 0), number("IsSourcePort1", 0),
                         number("IsSourcePort2", 0)))
    pieces.append(_ipv6_address("daddr", entry, "IsDestinationAddressInNumbers", "DestinationMask",
                                "IsDestinationAddressPrefixLength"))
    pieces.append(port[0])
    pieces.append(_tcp_flags(number("IsTCPBitsOperator", 0), number("IsTCPBits", 0), number("IsTCPBitsMask", 0)))
    if entry.get("IsDSCPPresent"):
        pieces.append(_dscp("ip6 dscp", number("DSCPOperator", 0), number("IsDSCPValu", 0), number("IsDSCPValu2", 0)))
    pieces.append(_ports("ip6 length", number("IsPacketLengthOperator", 0), number("IsPacketLengthStart", 0),
                         number("IsPacketLengthEnd", 0)))
    pieces.append(_ports("ip6 hoplimit", number("IsTimeToLiveOperator", 0), number("IsTimeToLiveStart", 0),
                         number("IsTimeToLiveEnd", 0)))
    pieces += ["log " if number("IsLogOption", 0) == 1 else "", "counter " if entry.get("CounterName") else ""]
    return "".join(pieces) + port[1] + ACTIONS.get(entry.get("IsPacketAllowOrDeny", "deny"), "")


def _is_filtered(operator, protocol, any_protocol):
    return protocol == 6 or (operator != 1 and protocol == any_protocol)


def _ipv4_address(word, address, wildcard):
    """The match on an address, or None if nftables has none for the wildcard mask."""
    bits = int(ipaddress.IPv4Address(wildcard))
    if bits == 0:
        return f"ip {word} {address} "
    if bits == 0xFFFFFFFF:
        return f"ip {word} 0.0.0.0/0 "
    length = _leading_ones(bits ^ 0xFFFFFFFF)
    return f"ip {word} {address}/{length} " if length else None


def _leading_ones(mask):
    return len(f"{mask:032b}".split("0", 1)[0])


def _ipv6_address(word, entry, address_field, mask_field, length_field):
    address = socket.inet_ntop(socket.AF_INET6, socket.inet_pton(socket.AF_INET6, entry.get(address_field, "::")))
    mask = socket.inet_pton(socket.AF_INET6, entry.get(mask_field, "::"))
    bits = "".join(f"{octet:08b}" for octet in mask)
    length = bits.count("1") if "01" not in bits else None
    margin = {"saddr": (" " * 16, " " * 15), "daddr": ("", "")}[word]
    if length == 128:
        return f"{margin[0]}ip6 {word} {address} "
    if length == 0 and address == "::":
        return f"{margin[0]}ip6 {word} ::/0 "
    if length is not None and length == entry.get(length_field, 0):
        return f"{margin[1]}ip6 {word} {address}/{length} "
    return f"{margin[1]}ip6 {word} {address} {socket.inet_ntop(socket.AF_INET6, mask)} "


def _ports(words, operator, first, second):
    """A condition on a number; none for other operators."""
    form = {EQ: f"eq {first}", GT: f"gt {first}", LT: f"lt {first}", NE: f"ne {first}", RANGE: f"{first}-{second}"}
    return f"{words} {form[operator]} " if operator in form else ""


def _dscp(words, operator, first, second):
    return _ports(words, operator if operator in (GT, LT, NE, RANGE) else EQ, first, second)


def _tcp_flags(operator, flags, mask):
    mask &= 0x3F
    return f"tcp flags & {mask} == {flags & mask} " if operator in (1, 2) else ""


def _destination_port(operator, first, kind):
    """What the check of the destination port adds, and the match on the service's port; None if there is no rule."""
    port = COMPARED_PORTS[kind]
    service = f"tcp dport {PORTS[kind]} "
    if operator == NE and first == port:
        return f"tcp dport ne {port} ", ""
    kept = {EQ: first == port, GT: first <= port, LT: first >= port, NE: True, RANGE: first <= port}.get(operator, True)
    return ("", service) if kept else None
