# Doxygen input filter for zel's public headers: the headers document each
# name in a plain `//` comment block right above its declaration (house
# style); this turns such a block into a Doxygen comment on the fly, so that
# the headers' own text stays as it is.
#   - The comment at the top of a header (before its include guard) becomes
#     the file's documentation (one `/// \file` line is put in front of it).
#   - A block directly followed by a line of code (a declaration, a #define)
#     becomes `///`; a block followed by a blank line stays a comment.
#   - A comment after a member on the same line (`int x;  // ...`) becomes
#     `///<`.
#   - In comment text outside `code spans`, the characters Doxygen would
#     read as commands or HTML (\ @ < > & # %) are escaped, so that <path>
#     or a\n read as written.
# Usage: awk -f comment-filter.awk header.h

# Escapes `text` outside its `code spans`, which Doxygen shows as written.
function escape(text,    parts, count, i, out) {
  count = split(text, parts, "`")
  out = ""
  for (i = 1; i <= count; i++) {
    if (i > 1) out = out "`"
    out = out (i % 2 == 1 ? escape_plain(parts[i]) : parts[i])
  }
  return out
}

function escape_plain(text,    out, i, c) {
  out = ""
  for (i = 1; i <= length(text); i++) {
    c = substr(text, i, 1)
    if (index("\\@<>&#%", c) > 0) out = out "\\"
    out = out c
  }
  return out
}

# Writes the pending comment block, as documentation when `doc` is set.
function flush(doc,    i, line, indent, text) {
  for (i = 1; i <= n; i++) {
    line = block[i]
    if (!doc) {
      print line
      continue
    }
    match(line, /^[ \t]*/)
    indent = substr(line, 1, RLENGTH)
    text = substr(line, RLENGTH + 3)
    print indent "///" escape(text)
  }
  n = 0
}

# A line that ends a run of declarations: blank, a comment, a closing brace,
# an access specifier or a preprocessor line.
function ends_run(line) {
  return line ~ /^[ \t]*$/ || line ~ /^[ \t]*\/\// || line ~ /^[ \t]*}/ ||
         line ~ /^[ \t]*(public|private|protected):/ || line ~ /^[ \t]*#/
}

# Prints a line of code, its trailing comment (after a member or an
# enumerator, with no string on the line) turned into `///<`.
function print_code(line,    pos) {
  if (line ~ /^[^"\/]*[;,][ \t]+\/\/ / && line !~ /^[ \t]*}/) {
    pos = index(line, "//")
    print substr(line, 1, pos - 1) "///<" escape(substr(line, pos + 2))
  } else {
    print line
  }
}

# Writes the declarations collected after a comment block. When the block
# stands above several declarations (a copy constructor and its assignment,
# a pair of members), they become one member group, and Doxygen gives each
# the block's documentation (DISTRIBUTE_GROUP_DOC).
function flush_run(    i, decls) {
  decls = 0
  for (i = 1; i <= r; i++) {
    if (run[i] ~ /(;|})[ \t]*(\/\/.*)?$/) decls++
  }
  if (decls > 1) print "/// @{"
  flush(1)
  for (i = 1; i <= r; i++) print_code(run[i])
  if (decls > 1) print "/// @}"
  r = 0
  collecting = 0
}

BEGIN { n = 0; r = 0; collecting = 0; seen_code = 0 }

# The declarations under a documentation block are collected up to the end
# of their run.
collecting && !ends_run($0) {
  run[++r] = $0
  next
}
collecting { flush_run() }

# The licence line at the top of every file is no documentation.
/^\/\/ SPDX-License-Identifier:/ {
  print
  next
}

# A whole-line plain comment (not already `///` or `//!`).
/^[ \t]*\/\/([^\/!]|$)/ {
  block[++n] = $0
  next
}

{
  if (n > 0) {
    if (!seen_code) {
      # The header's top comment: the file's documentation.
      print "/// \\file"
      flush(1)
    } else if (!ends_run($0) || $0 ~ /^[ \t]*#[ \t]*define/) {
      collecting = 1
      run[++r] = $0
      seen_code = 1
      next
    } else {
      flush(0)
    }
  }
  if ($0 !~ /^[ \t]*$/) seen_code = 1
  print_code($0)
}

END {
  if (collecting) flush_run()
  flush(0)
}
