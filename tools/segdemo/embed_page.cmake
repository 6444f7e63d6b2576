# cmake -DIN=page.html -DOUT=page.cpp -P embed_page.cmake
# Writes the page as a byte array: segdemoPage() returns it.
file(READ ${IN} hex HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n" bytes "${bytes}")
file(WRITE ${OUT} "// Generated from segdemo/page.html; do not edit.\n#include <string>\n\n"
  "namespace {\nconst unsigned char kPage[] = {\n${bytes}};\n}  // namespace\n\n"
  "const std::string& segdemoPage() {\n"
  "  static const std::string page(reinterpret_cast<const char*>(kPage), sizeof(kPage));\n"
  "  return page;\n}\n")
