# Writes the bytes of INPUT as a C array NAME (and NAME_size) into OUTPUT.
file(READ ${INPUT} hex HEX)
string(LENGTH "${hex}" digits)
math(EXPR size "${digits} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
file(WRITE ${OUTPUT} "/* Generated from ${INPUT}; do not edit. */\n#include <stddef.h>\n"
     "extern const unsigned char ${NAME}[];\nextern const size_t ${NAME}_size;\n"
     "const unsigned char ${NAME}[] __attribute__((aligned(8))) = {\n${bytes}\n};\n"
     "const size_t ${NAME}_size = ${size};\n")
