# Writes OUTPUT, a C++ file holding the seed schema (INPUT) as the text of KOEmulatorSchema::text().
# Bytes go out as hex escapes so no text of the file can end the literal.
#   cmake -DINPUT=seed.schema.json -DOUTPUT=... -P embed.cmake
cmake_minimum_required(VERSION 3.25)
file(READ "${INPUT}" hex HEX)
string(LENGTH "${hex}" length)
math(EXPR bytes "${length} / 2")
string(REPEAT "[0-9a-f][0-9a-f]" 64 line)
string(REGEX REPLACE "(${line})" "\\1\n" hex "${hex}")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "\\\\x\\1" escaped "${hex}")
string(REPLACE "\n" "\"\n    \"" escaped "${escaped}")
set(body "// Generated from tools/emulator/schemas/seed.schema.json by embed.cmake: edit that file, not this one.\n")
string(APPEND body "#include \"KOEmulatorSchema.h\"\n\nnamespace {\nconstexpr char kText[] =\n    \"${escaped}\";\n}  // namespace\n\n")
string(APPEND body "std::string_view KOEmulatorSchema::text() { return {kText, ${bytes}}; }\n")
file(WRITE "${OUTPUT}.tmp" "${body}")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
