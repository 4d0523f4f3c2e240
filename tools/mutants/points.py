"""Finds the places in a C++ source file that can be mutated.

A point is a range of the source with the text to insert around it, so that the compiled program can choose between the
original and one or more alternatives while it runs. Points in initializers belong to a variable, because that variable
can no longer be a constant expression.
"""
import bisect
import re

from clang import cindex
from clang.cindex import CursorKind as Kind

ARGUMENTS = ["-x", "c++", "-std=c++20", "-D_GNU_SOURCE", "-w"]

COMPARISONS = {"==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"]}
ARITHMETIC = {"+": "-", "-": "+", "*": "+", "/": "*", "%": "/", "&": "|", "|": "&", "^": "|", "<<": ">>", ">>": "<<"}
OPERATION_NAMES = {"==": "equal", "!=": "unequal", "<": "less", "<=": "at_most", ">": "greater", ">=": "at_least",
                   "+": "plus", "-": "minus", "*": "times", "/": "divided", "%": "modulo", "&": "bit_and",
                   "|": "bit_or", "^": "bit_xor", "<<": "left", ">>": "right"}

FUNCTIONS = {Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR, Kind.FUNCTION_TEMPLATE,
             Kind.CONVERSION_FUNCTION}
WRAPPERS = {Kind.UNEXPOSED_EXPR, Kind.PAREN_EXPR}
LEAVES = {Kind.CALL_EXPR, Kind.DECL_REF_EXPR, Kind.MEMBER_REF_EXPR, Kind.ARRAY_SUBSCRIPT_EXPR, Kind.UNARY_OPERATOR}
INTEGERS = re.compile(r"^(const |volatile )*(unsigned |signed )?(bool|char|short|int|long|long long|__int128)$")
ESCAPE = re.compile(r"\\([0-7]{1,3}|x[0-9a-fA-F]+|.)", re.DOTALL)
CONVERSION = re.compile(r"%[-+ #0]*(\*|\d+)?(\.(\*|\d+))?(hh?|ll?|j|z|t)?[a-zA-Z%]")


def letter_to_change(literal):
    """Returns the position in the text, the position in the literal, and the other letter; None if there is none.

    Conversion specifications are left alone, because a wrong one is undefined behaviour.
    """
    if not literal.startswith('"'):
        return None
    position, at = 0, 1
    while at < len(literal) and literal[at] != '"':
        specification = CONVERSION.match(literal, at)
        if specification:
            position += len(specification[0])
            at = specification.end()
            continue
        escape = ESCAPE.match(literal, at)
        if escape:
            position += 1
            at = escape.end()
            continue
        character = literal[at]
        if character.isascii() and (character.isalnum() or character in "/_-=:;{}#., "):
            return position, at, "x" if character != "x" else "y"
        position += 1
        at += 1
    return None


class Scope:
    """What surrounds an expression."""

    def __init__(self, selector="on", variable=None, table=None):
        self.selector = selector  # how generated code asks for the selected mutant
        self.variable = variable  # the key of the variable that is being initialized
        self.table = table  # the references in that variable's rows, to exchange them

    def inside(self, **changes):
        scope = Scope(self.selector, self.variable, self.table)
        scope.__dict__.update(changes)
        return scope


class Finder:
    """Walks the syntax tree of one file."""

    def __init__(self, path, source, root, unit):
        self.path, self.source, self.root, self.unit = path, source, root, unit
        self.text = source.decode("latin-1")
        self.points, self.variables, self.constant_uses, self.assertions = [], {}, [], []
        self.function = None
        macros = sorted((c.extent.start.offset, c.extent.end.offset) for c in unit.cursor.get_children()
                        if c.kind == Kind.MACRO_INSTANTIATION and self.is_here(c))
        self.macro_begins = [begin for begin, _ in macros]
        self.macro_ends = [end for _, end in macros]

    def is_here(self, cursor):
        start, end = cursor.extent.start, cursor.extent.end
        return start.file is not None and start.file.name == self.unit.spelling and \
            end.file is not None and end.file.name == self.unit.spelling

    def range_of(self, cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def in_macro(self, begin, end):
        index = bisect.bisect_right(self.macro_begins, begin) - 1
        return index >= 0 and end <= self.macro_ends[index]

    def slice(self, cursor):
        begin, end = self.range_of(cursor)
        return self.text[begin:end]

    def add(self, kind, cursor, scope, alternatives, prefix, suffix, replaced=None):
        """`alternatives`: (begin, end, text) for each mutant, as it is shown. {id} stands for the first one's number."""
        begin, end = self.range_of(cursor)
        if begin >= end or not self.is_here(cursor) or self.in_macro(begin, end):
            return
        selector = f"mutants::{scope.selector}"
        if replaced:
            replaced[2] = replaced[2].replace("{is}", selector)
        self.points.append({
            "kind": kind, "begin": begin, "end": end, "alternatives": alternatives, "variable": scope.variable,
            "prefix": prefix.replace("{is}", selector), "suffix": suffix.replace("{is}", selector),
            "replaced": replaced, "function": self.function})

    # Declarations

    def key_of(self, declaration):
        place = declaration.location
        if place.file is None:
            return None
        name = place.file.name
        if not name.startswith(self.root + "/"):
            return None
        return f"{name[len(self.root) + 1:]}:{place.offset}"

    def note_constant_uses(self, cursor):
        """What is read where only constant expressions are allowed has to stay constant."""
        for each in cursor.walk_preorder():
            key = self.key_of_reference(each)
            if key:
                self.constant_uses.append(key)

    def key_of_reference(self, cursor):
        if cursor.kind not in (Kind.DECL_REF_EXPR, Kind.MEMBER_REF_EXPR) or cursor.referenced is None or \
                cursor.referenced.kind not in (Kind.VAR_DECL, *FUNCTIONS):
            return None
        return self.key_of(cursor.referenced)

    def reads_of(self, cursor):
        return sorted({key for key in map(self.key_of_reference, cursor.walk_preorder()) if key})

    def begin_of_value(self, declaration):
        """The offset of the initializer of a variable or member, or None."""
        at = declaration.location.offset + len(declaration.spelling)
        end = declaration.extent.end.offset
        depth = 0
        while at < end:
            character = self.text[at]
            if depth == 0 and character in "={(":
                return at
            if depth == 0 and character == ":":
                return None
            depth += (character == "[") - (character == "]")
            at += 1
        return None

    def variable(self, cursor, scope):
        begin, _ = self.range_of(cursor)
        if re.search(r"template\s*<[^;{}]*>\s*$", self.text[:begin]):
            return self.note_constant_uses(cursor)
        declared = self.text[begin:cursor.location.offset]
        is_constexpr = re.search(r"\bconstexpr\b", declared)
        is_const = is_constexpr or re.search(r"\bconst\b[^*]*$", declared)
        is_static = "static" in declared or cursor.semantic_parent.kind in (Kind.TRANSLATION_UNIT, Kind.NAMESPACE)
        value = self.begin_of_value(cursor)
        children = list(cursor.get_children())
        inner = scope
        key = self.key_of(cursor)
        is_member = cursor.semantic_parent.kind in (Kind.STRUCT_DECL, Kind.CLASS_DECL, Kind.CLASS_TEMPLATE)
        if is_const or is_static:
            inner = scope.inside(variable=key, table=[] if is_static else None,
                                 selector="on" if is_static or is_constexpr else scope.selector)
            self.variables[key] = {
                "name": cursor.spelling, "constexpr": begin + is_constexpr.start() if is_constexpr else None,
                "instead": self.without_constexpr(cursor, declared),
                "fixed": bool(is_constexpr and (is_member or scope.selector == "in")), "reads": self.reads_of(cursor)}
        for child in children:
            if value is None or child.extent.start.offset < value:
                self.note_constant_uses(child)
            elif self.is_character_array(cursor, declared):
                if is_const:
                    self.character_array(cursor, child, inner)
            else:
                self.visit(child, inner)
        if inner.table:
            self.exchange_references(inner)
        return None

    def without_constexpr(self, cursor, declared):
        """What stands in place of `constexpr` if the variable is initialized when the program starts."""
        if not re.search(r"[&*]|\bconst\b", declared):
            return "const"
        is_global = cursor.semantic_parent.kind in (Kind.TRANSLATION_UNIT, Kind.NAMESPACE)
        return "static" if is_global and not re.search(r"\b(static|inline)\b", declared) else ""

    def is_character_array(self, cursor, declared):
        after = self.text[cursor.location.offset + len(cursor.spelling):cursor.extent.end.offset]
        return re.search(r"\bchar\s*$", declared) and re.match(r'\[\w*\]\s*=\s*"', after)

    def character_array(self, cursor, child, scope):
        """`constexpr char name[] = "text"` becomes a reference to one of two arrays."""
        literal = self.slice(child)
        change = letter_to_change(literal)
        begin, end = self.range_of(child)
        start = self.range_of(cursor)[0]
        if change is None or not self.is_here(child) or "[]" not in self.text[start:begin]:
            return
        position, at, letter = change
        declared = self.text[start:cursor.location.offset]
        storage = " ".join(re.findall(r"\b(?:inline|static|extern)\b", declared))
        self.variables[scope.variable]["constexpr"] = None
        self.points.append({
            "kind": "text", "begin": start, "end": end, "variable": scope.variable, "function": None,
            "alternatives": [[begin + at, begin + at + 1, letter]], "prefix": "", "suffix": ")",
            "replaced": [start, begin, f"{storage} const auto& {cursor.spelling} = "
                         f"mutants::text<{{id}}, {position}, '{letter}'>("]})

    def exchange_references(self, scope):
        """Each function or object named in a table is exchanged for the next one of its type."""
        by_type = {}
        for cursor in scope.table:
            by_type.setdefault(cursor.type.get_canonical().spelling, []).append(cursor)
        for cursors in by_type.values():
            texts = list(dict.fromkeys(self.slice(cursor) for cursor in cursors))
            if len(texts) < 2:
                continue
            for cursor in cursors:
                text = self.slice(cursor)
                other = texts[(texts.index(text) + 1) % len(texts)]
                begin, end = self.range_of(cursor)
                self.add("reference", cursor, scope, [[begin, end, other]], f"({{is}}({{id}}) ? {other} : ", ")")

    def field(self, cursor, scope):
        value = self.begin_of_value(cursor)
        for child in cursor.get_children():
            if value is None or child.extent.start.offset < value:
                self.note_constant_uses(child)
            else:
                self.visit(child, scope.inside(selector="in"))

    def function_declaration(self, cursor, scope):
        begin, end = self.range_of(cursor)
        is_constexpr = re.search(r"\b(constexpr|consteval)\b", self.text[begin:cursor.location.offset])
        outer, self.function = self.function, [begin, end]
        if is_constexpr:
            self.variables[self.key_of(cursor)] = {"name": cursor.spelling, "constexpr": None, "instead": "",
                                                   "fixed": False, "reads": self.reads_of(cursor)}
        for child in cursor.get_children():
            if child.kind == Kind.COMPOUND_STMT or (cursor.kind == Kind.CONSTRUCTOR and child.kind.is_expression()):
                self.visit(child, scope.inside(selector="in" if is_constexpr else "on"))
            else:
                self.note_constant_uses(child)
        self.function = outer

    # Statements

    def unwrapped(self, cursor):
        while cursor.kind in WRAPPERS:
            children = list(cursor.get_children())
            if len(children) != 1:
                break
            cursor = children[0]
        return self.as_written(cursor)

    def as_written(self, cursor):
        """The call behind `a != b` or `a >= b` if the compiler writes that as `!(a == b)` or `(a <=> b) >= 0`."""
        is_negated = cursor.kind == Kind.UNARY_OPERATOR and self.slice(cursor).startswith("!=")
        is_ordered = cursor.kind == Kind.CALL_EXPR and cursor.spelling in ("operator<", "operator<=", "operator>",
                                                                           "operator>=")
        for child in cursor.get_children() if is_negated or is_ordered else []:
            if child.kind == Kind.CALL_EXPR and child.spelling in ("operator==", "operator<=>"):
                return child
        return cursor

    def statement(self, cursor, scope):
        """Leaves out a call or an assignment."""
        inner = self.unwrapped(cursor)
        is_assignment = inner.kind == Kind.COMPOUND_ASSIGNMENT_OPERATOR or \
            (inner.kind == Kind.BINARY_OPERATOR and self.operator_of(inner) == "=")
        is_step = inner.kind == Kind.UNARY_OPERATOR and re.match(r"^(\+\+|--)|(\+\+|--)$", self.slice(inner).strip())
        if inner.kind == Kind.CALL_EXPR or is_assignment or is_step:
            begin, end = self.range_of(cursor)
            self.add("call" if inner.kind == Kind.CALL_EXPR else "assignment", cursor, scope, [[begin, end, ""]],
                     "({is}({id}) ? (void)0 : (void)(", "))")

    def condition(self, cursor, scope):
        inner = self.unwrapped(cursor)
        if inner.kind not in LEAVES or self.is_operator_call(inner):
            return
        if inner.kind == Kind.UNARY_OPERATOR and not self.slice(inner).startswith(("!", "*")):
            return
        begin, end = self.range_of(inner)
        text = self.slice(inner)
        shown = text[1:].lstrip() if text.startswith("!") else f"!{text}"
        self.add("condition", inner, scope, [[begin, end, shown]], "({is}({id}) != static_cast<bool>(", "))")

    def for_condition(self, cursor, children):
        """A for statement's parts are optional, so its condition is found by the semicolons."""
        begin = self.text.index("(", self.range_of(cursor)[0]) + 1
        semicolons, depth, at = [], 0, begin
        while at < self.range_of(cursor)[1] and depth >= 0 and len(semicolons) < 2:
            character = self.text[at]
            if character in "\"'":
                at = self.text.index(character, at + 1)
            elif character == ";" and depth == 0:
                semicolons.append(at)
            depth += (character in "([{") - (character in ")]}")
            at += 1
        if len(semicolons) < 2:
            return None
        for child in children:
            if semicolons[0] < child.extent.start.offset < semicolons[1]:
                return child
        return None

    def conditions_of(self, cursor, children):
        kind = cursor.kind
        if kind == Kind.IF_STMT:
            for child in children:
                if child.kind == Kind.VAR_DECL:
                    return []
                if child.kind.is_expression():
                    return [child]
        if kind == Kind.WHILE_STMT:
            return children[:1] if children[0].kind.is_expression() else []
        if kind == Kind.DO_STMT:
            return children[-1:]
        if kind == Kind.FOR_STMT:
            condition = self.for_condition(cursor, children)
            return [condition] if condition is not None else []
        if kind == Kind.CONDITIONAL_OPERATOR:
            return children[:1]
        if kind == Kind.RETURN_STMT and children and children[0].type.get_canonical().spelling == "bool":
            return children[:1]
        return []

    # Expressions

    def operands(self, cursor):
        if cursor.kind == Kind.CALL_EXPR and cursor.spelling.startswith("operator"):
            return [argument for argument in cursor.get_arguments() if argument is not None]
        return list(cursor.get_children())

    def operator_of(self, cursor):
        operands = self.operands(cursor)
        if len(operands) != 2:
            return None
        return self.text[operands[0].extent.end.offset:operands[1].extent.start.offset].strip()

    def is_operator_call(self, cursor):
        return cursor.kind == Kind.CALL_EXPR and self.operator_of(cursor) in COMPARISONS

    def binary(self, cursor, scope):
        operands = self.operands(cursor)
        operator = self.operator_of(cursor)
        if operator not in COMPARISONS and operator not in ARITHMETIC and operator not in ("&&", "||"):
            return
        left, right = operands
        gap = [left.extent.end.offset, right.extent.start.offset]
        if self.in_macro(*gap) or not self.is_here(left) or not self.is_here(right):
            return
        at = self.text.index(operator, gap[0])

        def shown(other):
            return [at, at + len(operator), other]

        if operator in COMPARISONS:
            others = COMPARISONS[operator]
            names = ", ".join(f"mutants::{OPERATION_NAMES[each]}" for each in [operator, *others])
            self.add("comparison", cursor, scope, [shown(other) for other in others],
                     f"mutants::compare<{names}>({{is}}({{id}}), {{is}}({{id}} + {len(others) - 1}), ", ")",
                     [*gap, ", "])
        elif operator == "&&":
            self.add("logic", cursor, scope, [shown("||")], "(static_cast<bool>(", ") : {is}({id}))",
                     [*gap, ") != {is}({id}) ? static_cast<bool>("])
        elif operator == "||":
            self.add("logic", cursor, scope, [shown("&&")], "(static_cast<bool>(", ") : !{is}({id}))",
                     [*gap, ") == {is}({id}) ? static_cast<bool>("])
        else:
            types = [each.type.get_canonical().spelling for each in operands]
            if all(INTEGERS.match(each) or each.startswith("enum") for each in types) or \
                    (operator in "+-" and types[0].endswith("*") and INTEGERS.match(types[1])):
                other = ARITHMETIC[operator]
                self.add("arithmetic", cursor, scope, [shown(other)],
                         f"mutants::calculate<mutants::{OPERATION_NAMES[operator]}, mutants::{OPERATION_NAMES[other]}>"
                         "({is}({id}), ", ")", [*gap, ", "])
            elif operator == "+" and cursor.kind == Kind.CALL_EXPR:
                self.add("arithmetic", cursor, scope, [[gap[0], right.extent.end.offset, ""]],
                         "mutants::joined({is}({id}), ", ")", [*gap, ", "])
        if operator in ("&&", "||"):
            for operand in operands:
                self.condition(operand, scope)

    def literal(self, cursor, scope):
        begin, end = self.range_of(cursor)
        text = self.text[begin:end]
        after = self.text[end:end + 1]
        if after.isalnum() or after == "_" or not self.is_here(cursor) or self.in_macro(begin, end):
            return
        if cursor.kind == Kind.CXX_BOOL_LITERAL_EXPR:
            other = "false" if text == "true" else "true"
            self.add("flag", cursor, scope, [[begin, end, other]], "({is}({id}) != ", ")")
        elif cursor.kind == Kind.INTEGER_LITERAL and text[0].isdigit():
            number = re.match(r"(\d+)(\w*)$", text)
            # A failure's -1 becomes success.
            other = "0" if text == "1" else f"{int(number[1]) + 1}{number[2]}" if number and not text.startswith("0x") and \
                (text[0] != "0" or len(number[1]) == 1) else f"{text} + 1"
            self.add("number", cursor, scope, [[begin, end, other]], f"({{is}}({{id}}) ? {other} : ", ")")
        elif cursor.kind == Kind.CHARACTER_LITERAL and text.startswith("'"):
            other = "'x'" if text != "'x'" else "'y'"
            self.add("number", cursor, scope, [[begin, end, other]], f"({{is}}({{id}}) ? {other} : ", ")")
        elif cursor.kind == Kind.STRING_LITERAL:
            change = letter_to_change(text)
            if change:
                position, at, letter = change
                function = "text" if scope.selector == "on" else "constant_text"
                self.add("text", cursor, scope, [[begin + at, begin + at + 1, letter]],
                         f"mutants::{function}<{{id}}, {position}, '{letter}'>(", ")")

    def reference(self, cursor, scope):
        target = cursor.referenced
        begin, end = self.range_of(cursor)
        if target is None:
            return
        text = self.text[begin:end]
        siblings = []
        if target.kind == Kind.ENUM_CONSTANT_DECL:
            siblings = [each for each in target.semantic_parent.get_children() if each.kind == target.kind]
            siblings = [each for each in siblings if each == target or each.enum_value != target.enum_value]
            kind = "enumerator"
        elif target.kind == Kind.PARM_DECL:
            owner = target.semantic_parent
            siblings = [each for each in owner.get_children() if each.kind == target.kind and each.spelling and
                        each.type.get_canonical().spelling == target.type.get_canonical().spelling]
            kind = "operand"
        elif target.kind in (Kind.FUNCTION_DECL, Kind.VAR_DECL):
            if scope.table is not None and self.is_here(cursor) and text:
                scope.table.append(cursor)
            return
        if len(siblings) < 2 or not text.endswith(target.spelling):
            return
        other = siblings[(siblings.index(target) + 1) % len(siblings)].spelling
        other = text[:len(text) - len(target.spelling)] + other
        self.add(kind, cursor, scope, [[begin, end, other]], f"({{is}}({{id}}) ? {other} : ", ")")

    def member(self, cursor, scope):
        target = cursor.referenced
        text = self.slice(cursor)
        if target is None or target.kind != Kind.FIELD_DECL or not re.fullmatch(r"[\w.\->\[\]]+", text) or \
                target.is_bitfield() or not text.endswith(target.spelling):
            return
        fields = [each for each in target.semantic_parent.get_children() if each.kind == Kind.FIELD_DECL and
                  each.spelling and not each.is_bitfield() and
                  each.type.get_canonical().spelling == target.type.get_canonical().spelling]
        if len(fields) < 2 or target not in fields:
            return
        other = text[:len(text) - len(target.spelling)] + fields[(fields.index(target) + 1) % len(fields)].spelling
        begin, end = self.range_of(cursor)
        self.add("operand", cursor, scope, [[begin, end, other]], f"({{is}}({{id}}) ? {other} : ", ")")

    def visit(self, cursor, scope):
        cursor = self.as_written(cursor)
        kind = cursor.kind
        if kind == Kind.STATIC_ASSERT:
            if self.is_here(cursor):
                self.assertions.append(self.range_of(cursor))
            return
        if kind in FUNCTIONS:
            return self.function_declaration(cursor, scope)
        if kind == Kind.VAR_DECL:
            return self.variable(cursor, scope)
        if kind == Kind.FIELD_DECL:
            return self.field(cursor, scope)
        if kind in (Kind.ENUM_DECL, Kind.TYPE_ALIAS_DECL, Kind.TYPEDEF_DECL, Kind.TYPE_ALIAS_TEMPLATE_DECL,
                    Kind.PARM_DECL):
            return self.note_constant_uses(cursor)
        if kind == Kind.CXX_UNARY_EXPR:
            return None  # sizeof
        if kind == Kind.UNEXPOSED_DECL and self.slice(cursor).startswith("template"):
            return self.note_constant_uses(cursor)
        children = list(cursor.get_children())
        if kind == Kind.IF_STMT and re.match(r"if\s+constexpr", self.slice(cursor)):
            self.note_constant_uses(children[0])
            children = children[1:]
        for condition in self.conditions_of(cursor, children):
            self.condition(condition, scope)
        if kind == Kind.CASE_STMT:
            self.note_constant_uses(children[0])
            children = children[1:]
        elif kind in (Kind.BINARY_OPERATOR, Kind.CALL_EXPR):
            if kind == Kind.CALL_EXPR and cursor.spelling.startswith('operator""'):
                return None
            self.binary(cursor, scope)
        elif kind in (Kind.INTEGER_LITERAL, Kind.CHARACTER_LITERAL, Kind.STRING_LITERAL, Kind.CXX_BOOL_LITERAL_EXPR):
            self.literal(cursor, scope)
        elif kind == Kind.DECL_REF_EXPR:
            self.reference(cursor, scope)
            for child in children:
                self.note_constant_uses(child)
            return None
        elif kind == Kind.MEMBER_REF_EXPR:
            self.member(cursor, scope)
        if kind in (Kind.COMPOUND_STMT, Kind.CASE_STMT, Kind.DEFAULT_STMT):
            for child in children:
                self.statement(child, scope)
        for child in children:
            self.visit(child, scope)
        return None


def find(path, source, root, include_folders):
    """Returns the points of one file; `path` is relative to `root`.

    Also the constant variables they belong to, the variables that constant expressions read, and the ranges of static
    assertions.
    """
    unit = cindex.Index.create().parse(
        f"{root}/{path}", [*ARGUMENTS, *(f"-I{folder}" for folder in include_folders)],
        options=cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
    errors = [str(each) for each in unit.diagnostics if each.severity >= cindex.Diagnostic.Error]
    finder = Finder(path, source, root, unit)
    for cursor in unit.cursor.get_children():
        if cursor.kind.is_declaration() and cursor.location.file is not None and \
                cursor.location.file.name == unit.spelling:
            finder.visit(cursor, Scope())
    return {"points": finder.points, "variables": finder.variables, "constant_uses": finder.constant_uses,
            "assertions": finder.assertions, "errors": errors}
