"""The mistakes that rules make: each rule takes a scanned source and yields
(rule, start, end, new text), offsets into its text."""

import re

from scanner import Token

SAME_AS_EMPTY = ("return {};", "return 0;", "return nullptr;", "return false;", "return std::nullopt;", "return std::string();")
SHIFTED = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
NUMBER = re.compile(r"(0[xX][0-9a-fA-F]+|0[0-7]*|[1-9][0-9]*)([uUlLzZ]*)$")
CHARACTER = re.compile(r"\\(?:x[0-9a-fA-F]+|[0-7]{1,3}|.)|[^\\]", re.DOTALL)


def span(source, first, last):
    return source.tokens[first].start, source.tokens[last].end


def text_of(source, first, last):
    start, end = span(source, first, last)
    return source.text[start:end]


def dropped_statements(source):
    for one in source.statements:
        yield "statement dropped", *span(source, one.first, one.last), "{}"


def tested(source, keyword, first, last):
    """The part between the parentheses that is a condition; None: there is none."""
    parts = [first]
    index = first
    while index <= last:
        if source.tokens[index].text == ";":
            parts.append(index + 1)
        index = source.partner.get(index, index) + 1 if source.tokens[index].text in "([{" else index + 1
    if keyword == "for":
        if len(parts) != 3 or parts[1] == parts[2] - 1:
            return None
        return parts[1], parts[2] - 2
    return (parts[-1], last) if keyword in ("if", "while") else None


def negated_conditions(source):
    for keyword, first, last in source.conditions:
        if (part := tested(source, keyword, first, last)) is not None:
            yield "condition negated", *span(source, *part), f"!({text_of(source, *part)})"
    for index, token in enumerate(source.tokens):
        if token.text == "!" and token.kind == "op":
            yield "condition negated", token.start, token.end, ""
        elif token.text == "&&" and source.text[token.start - 1] in " \n" and source.text[token.end] in " \n":
            yield "condition negated", token.start, token.end, "||"
        elif token.text == "||":
            yield "condition negated", token.start, token.end, "&&"
        elif token.text == "?":
            first = index
            while source.tokens[first - 1].text not in ("(", "{", "[", ",", ";", "=", "return", "<<", "?", ":", "+=", "throw", "}"):
                first = source.partner.get(first - 1, first - 1)
            yield "condition negated", *span(source, first, index - 1), f"!({text_of(source, first, index - 1)})"


def shifted_comparisons(source):
    """Comparisons have blanks around them; the brackets of templates do not."""
    for token in source.tokens:
        if token.kind == "op" and token.text in SHIFTED:
            if source.text[token.start - 1] in " \n" and source.text[token.end:token.end + 1] in (" ", "\n"):
                yield "comparison shifted", token.start, token.end, SHIFTED[token.text]


def other_numbers(text):
    match = NUMBER.match(text.replace("'", ""))
    if match is None:
        return []
    digits, suffix = match.groups()
    if digits[:2] in ("0x", "0X"):
        return [f"{int(digits, 16) + 1:#x}{suffix}", f"{int(digits, 16) >> 1:#x}{suffix}"]
    if len(digits) > 1 and digits[0] == "0":
        mode = int(digits, 8)
        return [f"0{mode ^ bit:o}{suffix}" for bit in (0o002, 0o020, 0o100)]
    return [f"{int(digits) + 1}{suffix}"] + ([f"{int(digits) - 1}{suffix}"] if int(digits) > 0 else [])


def other_strings(text):
    """Without the first character, without the last one, with another one in the middle."""
    begin, end = text.index('"') + 1, len(text) - 1
    if text[:begin].rstrip('"').endswith("R"):
        begin, end = text.index("(") + 1, text.rindex(")")
        if begin < end:
            yield text[:end - 1] + text[end:]
        return
    characters = CHARACTER.findall(text[begin:end])
    if not characters:
        yield text[:begin] + "x" + text[end:]
        return
    yield text[:begin] + "".join(characters[1:]) + text[end:]
    if len(characters) > 1:
        yield text[:begin] + "".join(characters[:-1]) + text[end:]
    if len(characters) > 2:
        middle = len(characters) // 2
        characters[middle] = "x" if characters[middle] != "x" else "y"
        yield text[:begin] + "".join(characters) + text[end:]


def other_character(text):
    inner = text[1:-1]
    if inner.isalnum() and inner not in "zZ9":
        return f"'{chr(ord(inner) + 1)}'"
    return "'x'" if inner != "x" else "'y'"


def changed_constants(source):
    for index, token in enumerate(source.tokens):
        before = source.tokens[index - 1] if index > 0 else Token("", "", 0, 0)
        changes = []
        if token.kind == "number" and not (before.text == "=" and source.tokens[index - 2].text in (")", "const", "override")):
            changes = other_numbers(token.text)
        elif token.kind in ("string", "raw") and before.text != "extern":
            changes = other_strings(token.text)
        elif token.kind == "char":
            changes = [other_character(token.text)]
        elif token.text in ("true", "false"):
            changes = ["false" if token.text == "true" else "true"]
        elif token.text == "|" and source.tokens[index + 1].kind == "word":
            # A flag that is not there.
            yield "constant changed", before.end, source.tokens[index + 1].end, ""
        for change in changes:
            yield "constant changed", token.start, token.end, change


def arguments(source, opening):
    """(first, last) of each of the arguments between the brackets."""
    found, first, index, end = [], opening + 1, opening + 1, source.partner[opening]
    while index < end:
        if source.tokens[index].text == ",":
            found.append((first, index - 1))
            first = index + 1
        index = source.partner[index] + 1 if source.tokens[index].text in "([{" else index + 1
    found.append((first, end - 1))
    return [pair for pair in found if pair[0] <= pair[1]]


def declares(source, first, last):
    """Whether it is a parameter with its type: probably, if there are two names in a row."""
    words = [token.kind == "word" and token.text not in ("new", "sizeof", "const") or token.text == "&" and
             source.text[token.start - 1] != " " for token in source.tokens[first:last + 1]]
    return any(one and other for one, other in zip(words, words[1:]))


def swapped_arguments(source):
    for opening, token in enumerate(source.tokens):
        is_call = token.text == "(" and opening > 0 and source.tokens[opening - 1].kind == "word" and \
            source.tokens[opening - 1].text not in ("if", "while", "for", "switch", "catch", "return", "min", "max")
        is_list = token.text == "{" and source.kinds[opening] == "list"
        if token.kind != "op" or not (is_call or is_list):
            continue
        listed = arguments(source, opening)
        for one, other in zip(listed, listed[1:]):
            texts = text_of(source, *one), text_of(source, *other)
            if texts[0] == texts[1] or declares(source, *one) or declares(source, *other):
                continue
            between = source.text[source.tokens[one[1]].end:source.tokens[other[0]].start]
            yield "arguments swapped", source.tokens[one[0]].start, source.tokens[other[1]].end, texts[1] + between + texts[0]


def early_returns(source):
    for one in source.statements:
        start, _ = span(source, one.first, one.last)
        text = text_of(source, one.first, one.last)
        if one.returns == "nothing" and text != "return;":
            yield "early return", start, start, "return; "
        elif one.returns == "value" and text not in SAME_AS_EMPTY:
            yield "early return", start, start, "return {}; "


def ignored_errors(source):
    """A call whose failure is ignored: the condition is evaluated, and taken for false."""
    for keyword, first, last in source.conditions:
        if keyword != "if":
            continue
        first, last = tested(source, keyword, first, last)
        text = text_of(source, first, last)
        body = source.text[source.tokens[last + 1].end:].lstrip("{ \n\t")
        fails = re.match(r"throw|return (-1|nullptr|false|report|no)", body)
        compares = re.search(r"[!=]= (-1|0|nullptr|SQLITE_OK)$|< 0$|^!", text)
        if "(" in text and "=" not in [token.text for token in source.tokens[first:last + 1]] and (fails or compares):
            yield "error ignored", *span(source, first, last), f"static_cast<void>({text}), false"
    for one in source.statements:
        words = source.tokens[one.first:one.last]
        if one.returns == "value" and words[0].text == "return" and words[-1].text == ")" and len(words) > 3:
            call = text_of(source, one.first + 1, one.last - 1)
            yield "error ignored", *span(source, one.first, one.last), f"{{ static_cast<void>({call}); return {{}}; }}"


RULES = (dropped_statements, negated_conditions, shifted_comparisons, changed_constants, swapped_arguments, early_returns,
         ignored_errors)


def mistakes(source):
    seen = set()
    for rule in RULES:
        for one in rule(source):
            if one[1:] not in seen:
                seen.add(one[1:])
                yield one
