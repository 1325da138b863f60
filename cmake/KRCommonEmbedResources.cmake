# Writes a C++ source that carries resource files as byte arrays and defines
# krcommon::platform::ModuleResources::builtIn(), which answers a file's bytes by
# its name. Run at build time whenever one of the files changes:
#
#   cmake -DOUTPUT=<file.cpp> "-DINPUTS=<file>;<file>;..." -P KRCommonEmbedResources.cmake

if(NOT OUTPUT OR NOT INPUTS)
  message(FATAL_ERROR "KRCommonEmbedResources: -DOUTPUT=... and -DINPUTS=... are required")
endif()

set(arrays "")
set(entries "")
set(index 0)
foreach(input IN LISTS INPUTS)
  get_filename_component(name "${input}" NAME)
  file(READ "${input}" hex HEX)
  string(LENGTH "${hex}" digits)
  if(digits EQUAL 0)
    message(FATAL_ERROR "KRCommonEmbedResources: ${input} is empty")
  endif()
  # Twenty bytes a line, each as 0xNN.
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(REPEAT "0x..," 20 line)
  string(REGEX REPLACE "(${line})" "\\1\n    " bytes "${bytes}")
  math(EXPR size "${digits} / 2")
  string(APPEND arrays "// ${name}, ${size} bytes\nconstexpr unsigned char file${index}[] = {\n    ${bytes}\n};\n")
  string(APPEND entries "    {\"${name}\", file${index}},\n")
  math(EXPR index "${index} + 1")
endforeach()

file(WRITE "${OUTPUT}" "// Made at build time by cmake/KRCommonEmbedResources.cmake from the library's
// resource files; edit those, not this.

#include <krcommon/platform/ui/ModuleResources.h>

namespace krcommon::platform {

namespace {

${arrays}
struct Entry {
    std::string_view name;
    std::span<const unsigned char> bytes;
};

constexpr Entry entries[] = {
${entries}};

}  // namespace

std::span<const unsigned char> ModuleResources::builtIn(std::string_view fileName) noexcept {
    for (const auto& entry : entries)
        if (entry.name == fileName) return entry.bytes;
    return {};
}

}  // namespace krcommon::platform
")
