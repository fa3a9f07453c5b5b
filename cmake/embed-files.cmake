# Writes a C++ source that holds files as bytes: cmake -DOUTPUT=out.cpp -DHEADER=dir/x.h
#   -DFUNCTION=Name "-DFILES=name1=path1|name2=path2" -P embed-files.cmake
# The source defines `std::span<const EmbeddedFile> Name()` (declared in HEADER), in the given order.
string(REPLACE "|" ";" FILES "${FILES}")
set(arrays "")
set(entries "")
set(n 0)
foreach(pair IN LISTS FILES)
  string(FIND "${pair}" "=" at)
  string(SUBSTRING "${pair}" 0 ${at} name)
  math(EXPR from "${at} + 1")
  string(SUBSTRING "${pair}" ${from} -1 path)
  file(READ "${path}" hex HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n    " bytes "${bytes}")
  string(APPEND arrays "const unsigned char file${n}[] = {\n    ${bytes}};\n")
  string(APPEND entries "      {\"${name}\", {reinterpret_cast<const char*>(file${n}), sizeof file${n}}},\n")
  math(EXPR n "${n} + 1")
endforeach()
file(WRITE "${OUTPUT}.new" "// Made by cmake/embed-files.cmake from the files it names: not to be edited.
#include \"${HEADER}\"

namespace {
${arrays}}  // namespace

std::span<const EmbeddedFile> ${FUNCTION}() {
  static const EmbeddedFile files[] = {
${entries}  };
  return files;
}
")
file(COPY_FILE "${OUTPUT}.new" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.new")
