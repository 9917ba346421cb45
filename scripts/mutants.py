"""Mutation points drawn from the library's own syntax tree (libclang, Debian's python3-clang).

Every translation unit built from src/ on the host is parsed with its own compile command; each
node of a file under src/ that one of the operators below applies to becomes a Mutant. A mutant
has a stable id (file, function and a hash of its line's text and change, so that unrelated edits
elsewhere keep it), the byte range it replaces and the new text.
"""

import hashlib
import json
import os
import shlex

try:
    import clang.cindex as ci
except ImportError:  # Debian's bindings live with the system interpreter
    import sys
    sys.path.append("/usr/lib/python3/dist-packages")
    import clang.cindex as ci

K = ci.CursorKind

# One change per operator: the boundary slip for comparisons, the opposite for the rest.
BINARY = {
    "<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==",
    "&&": "||", "||": "&&", "+": "-", "-": "+", "*": "/", "/": "*", "%": "*",
    "&": "|", "|": "&", "<<": ">>", ">>": "<<",
    "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "|=": "&=", "&=": "|=",
}
OPERATOR_CALLS = {"operator" + op: op for op in ("<", "<=", ">", ">=", "==", "!=", "+", "-")}
FUNCTIONS = {K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR, K.FUNCTION_TEMPLATE,
             K.CONVERSION_FUNCTION, K.LAMBDA_EXPR}
CONDITION_OWNERS = {K.IF_STMT, K.WHILE_STMT, K.DO_STMT, K.CONDITIONAL_OPERATOR}


class Mutant:
    def __init__(self, file, function, line, start, end, original, replacement, operator):
        self.file, self.function, self.line = file, function, line
        self.start, self.end = start, end
        self.original, self.replacement, self.operator = original, replacement, operator
        self.id = None

    def describe(self):
        return f"{self.operator}: `{_short(self.original)}` -> `{_short(self.replacement)}`"


def _short(text, width=60):
    text = " ".join(text.split())
    return text if len(text) <= width else text[:width - 3] + "..."


def _compile_args(entry):
    args = entry["arguments"][1:] if "arguments" in entry else shlex.split(entry["command"])[1:]
    out, skip = [], False
    for a in args:
        if skip:
            skip = False
            continue
        if a in ("-o", "-c", "-MF", "-MT", "-MQ"):
            skip = a != "-c"
            continue
        if a == entry["file"] or a.endswith(os.path.basename(entry["file"])):
            continue
        out.append(a)
    return out


class _Collector:
    def __init__(self, root, src_prefix, excluded):
        self.root, self.src_prefix, self.excluded = root, src_prefix, excluded
        self.texts = {}
        self.found = {}

    def text(self, path):
        if path not in self.texts:
            with open(path, "rb") as f:
                self.texts[path] = f.read()
        return self.texts[path]

    def ours(self, cursor):
        loc, end = cursor.extent.start, cursor.extent.end
        if loc.file is None or end.file is None or loc.file.name != end.file.name:
            return None
        path = os.path.realpath(loc.file.name)
        if not path.startswith(self.src_prefix):
            return None
        rel = os.path.relpath(path, self.root)
        if any(rel.startswith(e) for e in self.excluded):
            return None
        return path

    def add(self, path, function, cursor_line, start, end, replacement, operator):
        src = self.text(path)
        if start >= end or end > len(src):
            return
        original = src[start:end].decode("utf-8", "replace")
        if original == replacement:
            return
        rel = os.path.relpath(path, self.root)
        key = (rel, start, end, replacement)
        if key not in self.found:
            self.found[key] = Mutant(rel, function, cursor_line, start, end, original,
                                     replacement, operator)

    def walk(self, cursor, function, parent_kind):
        path = self.ours(cursor)
        if path is None and cursor.kind not in (K.NAMESPACE, K.UNEXPOSED_DECL, K.LINKAGE_SPEC):
            return
        if cursor.kind in FUNCTIONS and cursor.kind != K.LAMBDA_EXPR:
            parent = cursor.semantic_parent
            prefix = parent.spelling + "::" if parent is not None and parent.kind in (
                K.CLASS_DECL, K.STRUCT_DECL, K.CLASS_TEMPLATE) else ""
            function = prefix + cursor.spelling
        if path is not None and function is not None:
            self.visit(cursor, path, function, parent_kind)
        # A statement wrapped for its temporaries' cleanup is still a statement.
        through = (cursor.kind == K.UNEXPOSED_EXPR and parent_kind == K.COMPOUND_STMT)
        for child in cursor.get_children():
            same = through and child.extent.start.offset == cursor.extent.start.offset \
                and child.extent.end.offset == cursor.extent.end.offset
            self.walk(child, function, K.COMPOUND_STMT if same else cursor.kind)

    def visit(self, c, path, function, parent_kind):
        line = c.extent.start.line
        kind = c.kind
        src = self.text(path)
        if kind in (K.BINARY_OPERATOR, K.COMPOUND_ASSIGNMENT_OPERATOR):
            children = list(c.get_children())
            if len(children) != 2:
                return
            lo, hi = children[0].extent.end.offset, children[1].extent.start.offset
            for tok in c.get_tokens():
                off = tok.extent.start.offset
                if lo <= off < hi and tok.kind == ci.TokenKind.PUNCTUATION:
                    op = tok.spelling
                    if src[off:off + len(op)].decode() != op:
                        return  # inside a macro expansion
                    if op in BINARY:
                        self.add(path, function, line, off, off + len(op), BINARY[op],
                                 "operator")
                    elif op == "=" and parent_kind == K.COMPOUND_STMT:
                        self.add(path, function, line, c.extent.start.offset, c.extent.end.offset,
                                 "(void)0", "assignment removed")
                    return
        elif kind == K.CALL_EXPR:
            if c.spelling in OPERATOR_CALLS:
                op = OPERATOR_CALLS[c.spelling]
                for child in c.get_children():
                    ext = child.extent
                    if src[ext.start.offset:ext.end.offset].decode("utf-8", "replace") == op:
                        self.add(path, function, line, ext.start.offset, ext.end.offset,
                                 BINARY[op], "operator")
                        return
            elif c.spelling == "operator=" and parent_kind == K.COMPOUND_STMT:
                self.add(path, function, line, c.extent.start.offset, c.extent.end.offset,
                         "(void)0", "assignment removed")
            elif parent_kind == K.COMPOUND_STMT and c.spelling and \
                    any(True for _ in c.get_tokens()):
                self.add(path, function, line, c.extent.start.offset, c.extent.end.offset,
                         "(void)0", "call removed")
        elif kind == K.INTEGER_LITERAL:
            tokens = list(c.get_tokens())
            if len(tokens) != 1:
                return
            text = tokens[0].spelling
            digits = len(text) - len(text.lstrip("0123456789"))
            if digits == 0 or text.startswith("0x") or (text.startswith("0") and len(text) > 1
                                                       and text[1].isdigit()):
                return
            value = int(text[:digits])
            off = tokens[0].extent.start.offset
            self.add(path, function, line, off, off + digits, str(value + 1), "constant")
        elif kind == K.FLOATING_LITERAL:
            tokens = list(c.get_tokens())
            if len(tokens) != 1:
                return
            text = tokens[0].spelling
            suffix = "f" if text[-1:] in "fF" else ""
            try:
                value = float(text.rstrip("fFlL"))
            except ValueError:
                return
            moved = value * 1.25 if value != 0 else 0.5
            off = tokens[0].extent.start.offset
            self.add(path, function, line, off, off + len(text), repr(moved) + suffix, "constant")
        if kind in CONDITION_OWNERS:
            children = list(c.get_children())
            cond = None
            if kind == K.DO_STMT and len(children) == 2:
                cond = children[1]
            elif kind != K.DO_STMT and children:
                cond = children[0]
            if cond is None or not cond.kind.is_expression():
                return
            s, e = cond.extent.start.offset, cond.extent.end.offset
            text = src[s:e].decode("utf-8", "replace")
            if not text.strip() or not list(cond.get_tokens()):
                return
            self.add(path, function, line, s, e, "!(" + text + ")", "condition negated")


def collect(compile_commands, root, excluded=("src/platform/android/", "src/platform/host/")):
    """All mutants of the library's sources under root/src that the host build compiles. The
    host's stand-ins for the platform (src/platform/host) are not the library's behaviour and the
    device-only seams are not built here: both are left out."""
    with open(compile_commands, encoding="utf-8") as f:
        entries = json.load(f)
    src_prefix = os.path.join(os.path.realpath(root), "src") + os.sep
    collector = _Collector(os.path.realpath(root), src_prefix, excluded)
    seen_files = set()
    index = ci.Index.create()
    for entry in entries:
        path = os.path.realpath(os.path.join(entry.get("directory", ""), entry["file"]))
        if not path.startswith(src_prefix) or path in seen_files:
            continue
        seen_files.add(path)
        tu = index.parse(path, args=_compile_args(entry))
        for child in tu.cursor.get_children():
            collector.walk(child, None, K.TRANSLATION_UNIT)
    mutants = sorted(collector.found.values(), key=lambda m: (m.file, m.start, m.replacement))
    _assign_ids(mutants, collector)
    return mutants


def _assign_ids(mutants, collector):
    """Id: file, function and a hash of the line's text, the change and its column in the line,
    plus a counter for the rare identical pair."""
    counts = {}
    for m in mutants:
        src = collector.text(os.path.join(collector.root, m.file))
        line_start = src.rfind(b"\n", 0, m.start) + 1
        line_end = src.find(b"\n", m.start)
        line_text = src[line_start:line_end if line_end >= 0 else len(src)]
        stripped = line_text.lstrip()
        column = m.start - line_start - (len(line_text) - len(stripped))
        h = hashlib.sha1(b"|".join([stripped.strip(), str(column).encode(),
                                    m.original.encode(), m.replacement.encode()])).hexdigest()[:8]
        base = f"{m.file}:{m.function}:{h}"
        counts[base] = counts.get(base, 0) + 1
        m.id = base if counts[base] == 1 else f"{base}.{counts[base]}"
