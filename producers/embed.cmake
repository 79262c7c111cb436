# Writes the file IN as a C++ character array into OUT.
file(READ ${IN} content HEX)
string(LENGTH "${content}" n)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${content}")
string(REGEX REPLACE "((0x..,){32})" "\\1\n" bytes "${bytes}")
file(WRITE ${OUT} "// Generated from ${IN}.\nnamespace kivsim {\nextern const unsigned char kDescriptionTemplate[];\nconst unsigned char kDescriptionTemplate[] = {\n${bytes}0x00};\n}\n")
