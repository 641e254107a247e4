#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Usage: function-lengths.py [--max N] [--list] DIR...

Lists the functions of the C++ sources (*.cpp, *.h) below each DIR whose
body is longer than N lines (default 80) and fails when there is one. A
body's length is the number of its lines that hold code: from the line of
its opening brace to the line of its closing brace, blank lines and lines
that hold only a comment left out. Member functions defined in a class,
lambdas and local classes count towards the function that holds them.
--list prints every function with its length, longest first.

The reading is lexical, not a compiler's: comments, string and character
literals (raw strings included) are blanked first; a brace opens a function
when the text before it, since the previous ';', '{' or '}', holds a
parameter list and is no namespace, class, struct, union, enum, extern
block or initialiser.
"""
import os
import re
import sys

SCOPE_RE = re.compile(r'^\s*(template\s*<.*>\s*)?(namespace|class|struct|union|enum|extern\s+"C")\b')


def blank(text):
    """The text with comments and literals replaced by spaces (newlines kept)."""
    out = []
    i, n = 0, len(text)
    while i < n:
        c = text[i]
        if text.startswith('//', i):
            j = text.find('\n', i)
            j = n if j < 0 else j
            out.append(' ' * (j - i))
            i = j
        elif text.startswith('/*', i):
            j = text.find('*/', i + 2)
            j = n if j < 0 else j + 2
            out.append(re.sub(r'[^\n]', ' ', text[i:j]))
            i = j
        elif c == 'R' and text.startswith('R"', i) and (i == 0 or not (text[i - 1].isalnum() or text[i - 1] == '_')):
            m = re.match(r'R"([^(\s]*)\(', text[i:])
            end = text.find(')' + m.group(1) + '"', i) if m else -1
            j = n if end < 0 else end + len(m.group(1)) + 2
            out.append('""' + re.sub(r'[^\n]', ' ', text[i + 2:j]))
            i = j
        elif c in '"\'':
            if c == "'" and i > 0 and text[i - 1].isalnum():  # digit separator 1'000
                out.append(' ')
                i += 1
                continue
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == '\\' else 1
            out.append(c + ' ' * (j - i - 1) + c)
            i = j + 1
        else:
            out.append(c)
            i += 1
    return ''.join(out)


def functions(path):
    """(name, first line, length) of every function defined in `path`."""
    with open(path, encoding='utf-8', errors='replace') as f:
        raw = f.read()
    # Preprocessor lines are no part of a declaration's text.
    code = re.sub(r'(?m)^[ \t]*#.*$', '', blank(raw))
    lines = code.split('\n')
    has_code = [bool(line.strip()) for line in lines]
    result = []
    stack = []  # per open brace: None (transparent) or (name, line index)
    head = []
    line_no = 0
    for ch in code:
        if ch == '\n':
            line_no += 1
            head.append(' ')
            continue
        if ch == '{':
            text = ' '.join(''.join(head).split())
            head = []
            inside = any(entry is not None for entry in stack)
            if inside:
                stack.append('inner')
            elif SCOPE_RE.match(text) or text.endswith('=') or '(' not in text:
                stack.append(None)
            else:
                m = re.search(r'([~\w:<>]+)\s*\(', text)
                stack.append((m.group(1) if m else text[:40], line_no))
        elif ch == '}':
            head = []
            entry = stack.pop() if stack else None
            if isinstance(entry, tuple):
                name, start = entry
                length = sum(1 for k in range(start, line_no + 1) if has_code[k])
                result.append((name, start + 1, length))
        elif ch == ';':
            head = []
        else:
            head.append(ch)
    return result


def main(argv):
    limit, listing, dirs = 80, False, []
    args = iter(argv)
    for arg in args:
        if arg == '--max':
            limit = int(next(args))
        elif arg == '--list':
            listing = True
        else:
            dirs.append(arg)
    if not dirs:
        print(__doc__, file=sys.stderr)
        return 2
    found = []
    for top in dirs:
        for root, _, files in os.walk(top):
            for name in sorted(files):
                if name.endswith(('.cpp', '.h')):
                    path = os.path.join(root, name)
                    found += [(length, path, line, fn) for fn, line, length in functions(path)]
    found.sort(reverse=True)
    over = [entry for entry in found if entry[0] > limit]
    try:
        for length, path, line, fn in (found if listing else over):
            print(f'{path}:{line}: {fn}: {length} lines')
    except BrokenPipeError:
        return 0
    if over:
        print(f'function-lengths: {len(over)} function(s) longer than {limit} lines', file=sys.stderr)
        return 1
    return 0


if __name__ == '__main__':
    sys.exit(main(sys.argv[1:]))
