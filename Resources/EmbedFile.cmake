# cmake -DINPUT=file -DOUTPUT=file.cpp -DSYMBOL=name -P EmbedFile.cmake
# Writes a C++ source holding INPUT as a byte array.
file(READ "${INPUT}" hex HEX)
string(LENGTH "${hex}" length)
math(EXPR bytes "${length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," body "${hex}")
string(REGEX REPLACE "((0x[0-9a-f][0-9a-f],){16})" "\\1\n" body "${body}")
file(WRITE "${OUTPUT}" "// Generated from ${INPUT}; do not edit.\n#include <cstddef>\nalignas(16) extern const unsigned char ${SYMBOL}[] = {\n${body}\n};\nextern const std::size_t ${SYMBOL}Size = ${bytes};\n")
