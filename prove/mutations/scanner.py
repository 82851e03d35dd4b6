"""A plain scanner of C++: tokens, which braces hold code, where statements begin and end. It
is no parser: where it is wrong, the mistake does not compile, and another one is drawn."""

import re
from dataclasses import dataclass, field

TOKEN = re.compile(r"""
    (?P<space>\s+|//[^\n]*|/\*.*?\*/)
  | (?P<directive>\#(?:\\\n|[^\n])*)
  | (?P<raw>(?:u8|[uUL])?R"(?P<fence>[^()\\\s]*)\(.*?\)(?P=fence)")
  | (?P<string>(?:u8|[uUL])?"(?:\\.|[^"\\\n])*")
  | (?P<char>'(?:\\.|[^'\\\n])+')
  | (?P<number>\.?[0-9](?:'?[0-9A-Za-z_.])*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<op><<=|>>=|\.\.\.|->\*|::|->|\+\+|--|<<|>>|[-+*/%&|^<>=!]=|&&|\|\||.)
""", re.VERBOSE | re.DOTALL)

CLOSING = {"(": ")", "[": "]", "{": "}"}
SCOPES = {"namespace", "class", "struct", "union"}


@dataclass
class Token:
    kind: str
    text: str
    start: int
    end: int


@dataclass
class Statement:
    first: int  # of its tokens
    last: int  # the semicolon
    returns: str  # what the function around it returns: "nothing", "value", "unknown"


@dataclass
class Source:
    text: str
    tokens: list
    partner: dict  # opening bracket -> closing one, and back
    kinds: dict  # opening brace -> "code", "scope", "list"
    statements: list = field(default_factory=list)
    conditions: list = field(default_factory=list)  # (keyword, first, last) between the parentheses


def tokenize(text):
    found = []
    for match in TOKEN.finditer(text):
        kind = match.lastgroup if match.lastgroup != "fence" else "raw"
        if kind not in ("space", "directive"):
            found.append(Token(kind, match.group(), match.start(), match.end()))
    return found


def pair_brackets(tokens):
    partner, open_ones = {}, []
    for index, token in enumerate(tokens):
        if token.kind != "op":
            continue
        if token.text in CLOSING:
            open_ones.append(index)
        elif token.text in CLOSING.values():
            opening = open_ones.pop()
            assert CLOSING[tokens[opening].text] == token.text, f"brackets do not match near {token.start}"
            partner[opening], partner[index] = index, opening
    assert not open_ones, "a bracket is open at the end"
    return partner


def head_of(source, brace):
    """The index of the first token of what comes before a brace, such as a function's head."""
    index = brace
    while index > 0 and source.tokens[index - 1].text not in (";", "{", "}"):
        index -= 1
        if index in source.partner and source.partner[index] < index:
            index = source.partner[index]
    return index


def kind_of_brace(source, brace):
    tokens = source.tokens
    before = tokens[brace - 1] if brace > 0 else Token("op", ";", 0, 0)
    if before.text in (")", "]", "else", "do", "try", "const", "noexcept", "override", "mutable", ":"):
        return "code"
    words = [token.text for token in tokens[head_of(source, brace):brace]]
    if "->" in words and before.kind == "word" and words.index("->") > 0 and words[words.index("->") - 1] == ")":
        return "code"
    if before.kind == "string" or SCOPES & set(words[:4]) and "=" not in words and "(" not in words:
        return "scope"
    if before.text in (";", "{", "}"):
        return "code"
    return "list"


def returns_of(source, brace):
    """What the function whose body begins at the brace returns."""
    tokens = source.tokens
    before = brace - 1
    while tokens[before].kind == "word":
        before -= 1  # const, noexcept, override
    if tokens[before].text != ")":
        return "unknown"
    if tokens[source.partner[before] - 1].text == "]":
        return "unknown"  # a lambda
    first = head_of(source, brace)
    words = []
    for token in tokens[first:brace]:
        if token.text == "(":
            break
        words.append(token.text)
    if not words or words[-1] in ("if", "while", "for", "switch", "catch"):
        return "unknown"
    name = len(words) - 1
    while name >= 2 and words[name - 1] == "::":
        name -= 2
    kind = [word for word in words[:name] if word not in ("static", "inline", "virtual", "explicit", "constexpr", "~", ":", "public", "private")]
    if not kind or (kind[-1] == "void"):
        return "nothing"
    return "value"


class StatementFinder:
    """Walks the bodies of all functions and lambdas."""

    def __init__(self, source):
        self.source, self.tokens, self.seen = source, source.tokens, set()
        for brace in sorted(source.kinds):
            if source.kinds[brace] == "code" and brace not in self.seen:
                self.block(brace, returns_of(source, brace))

    def block(self, brace, returns):
        self.seen.add(brace)
        index, end = brace + 1, self.source.partner[brace]
        while index < end:
            index = self.statement(index, end, returns)
        return end + 1

    def statement(self, index, end, returns):
        """Notes the statement and returns the index after it."""
        text = self.tokens[index].text
        if text == "{":
            return self.block(index, returns)
        if text in ("if", "while", "for", "switch", "catch"):
            opening = index + 1
            while self.tokens[opening].text != "(":
                opening += 1
            closing = self.source.partner[opening]
            self.source.conditions.append((text, opening + 1, closing - 1))
            return self.statement(closing + 1, end, returns)
        if text in ("else", "do", "try"):
            return self.statement(index + 1, end, returns)
        if text in ("case", "default"):
            while self.tokens[index].text != ":":
                index += 1
            return index + 1
        first = index
        while index < end and self.tokens[index].text != ";":
            index = self.source.partner.get(index, index) + 1
        if index > first and index < end:
            self.source.statements.append(Statement(first, index, returns))
        return index + 1


def scan(text):
    tokens = tokenize(text)
    source = Source(text, tokens, pair_brackets(tokens), {})
    for index, token in enumerate(tokens):
        if token.text == "{" and token.kind == "op":
            source.kinds[index] = kind_of_brace(source, index)
    StatementFinder(source)
    return source
