# Doxygen input filter: the headers keep plain C comments, written for
# people reading the header; this turns them into documentation comments
# without touching the files.
#  - the file's opening comment becomes the file's description;
#  - a comment block (C "/* */" or a run of "//" lines) directly above a
#    declaration documents that declaration;
#  - a comment after a member or a macro on its line documents that member;
#  - section banners ("/* ---- ... */", "/* ==== ... */" and the lines between),
#    and comments followed by a blank line, another comment, an #include or
#    an #endif, stay plain comments. Doxygen's own preprocessor drops the
#    #if and #pragma lines between a comment and what it documents.
function flush_block(next_line,    i, doc, first) {
  doc = next_line !~ /^[ \t]*$/ && next_line !~ /^[ \t]*(\/\*|\/\/|#[ \t]*(include|endif)|})/
  # A comment over a run of macros documents each of them.
  if (doc && next_line ~ /^#[ \t]*define[ \t]/) { print "/**@{*/"; in_group = 1 }
  # ... and one over a run of functions documents each of them.
  if (doc && next_line ~ /^KIVCAM_API/) { print "/**@{*/"; in_api_group = 1 }
  for (i = 1; i <= n; ++i) {
    first = block[i]
    if (doc && i == 1) {
      if (first ~ /^[ \t]*\/\*/) sub(/\/\*/, "/**", first)
      else sub(/\/\//, "///", first)
    } else if (doc && kind == "//") {
      sub(/\/\//, "///", first)
    }
    print first
  }
  n = 0
}
function is_banner(line) { return line ~ /^\/\* *(-{3,}|={3,})/ || in_banner }
BEGIN { n = 0; open = 0; in_banner = 0; in_group = 0; in_api_group = 0; continued = 0; line_no = 0 }
{
  ++line_no
  line = $0
  if (in_group && !continued && line !~ /^#[ \t]*define[ \t]/) { print "/**@}*/"; in_group = 0 }
  if (in_api_group && line ~ /^[ \t]*($|\/\*|\/\/|#)/) { print "/**@}*/"; in_api_group = 0 }
  continued = line ~ /\\$/
  if (open) {                                     # inside a /* */ block being collected
    block[++n] = line
    if (line ~ /\*\//) open = 0
    next
  }
  if (n > 0 && kind == "//" && line ~ /^[ \t]*\/\/[^\/]/) { block[++n] = line; next }
  if (n > 0) flush_block(line)
  if (line_no == 1 && line ~ /^\/\*[ \t]*$/) {    # the file's own description
    print "/** @file"
    next
  }
  if (line ~ /^\/\* *={3,}/) in_banner = !in_banner
  if (line ~ /^[ \t]*\/\*/ && !is_banner(line) && line !~ /^[ \t]*\/\*\*/) {
    kind = "/*"
    block[++n] = line
    if (line !~ /\*\//) open = 1
    next
  }
  if (line ~ /^[ \t]*\/\/[^\/]/) { kind = "//"; block[++n] = line; next }
  # A comment after code on the same line documents what the line declares.
  if (line ~ /^[ \t]*[^ \t\/#*]/ && line ~ /[;,{] *\/\* / && line !~ /\/\*\*</) sub(/ \/\* /, " /**< ", line)
  else if (line ~ /^#[ \t]*define[ \t]/ && line ~ /[^ \t] +\/\* / && line !~ /\/\*\*</) sub(/ +\/\* /, " /**< ", line)
  else if (line ~ /^[ \t]*[^ \t\/#*]/ && line ~ /[;,{] *\/\/ /) sub(/ *\/\/ /, " ///< ", line)
  print line
}
END { if (n > 0) flush_block(""); if (in_group || in_api_group) print "/**@}*/" }
