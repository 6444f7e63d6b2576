// The built shared library: its SONAME and its dynamic symbol table against
// the lists of exported names in this folder (*.txt, one name a line).
// A name with "(" or "::" is compared with the demangled table; a plain name
// must appear unmangled, exactly as written.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

namespace {

const std::string kLibrary = SEGCORE_LIBRARY_FILE;

// The output lines of a shell command.
std::vector<std::string> runLines(const std::string& command) {
  std::vector<std::string> lines;
  FILE* pipe = popen(command.c_str(), "r");
  char buf[4096];
  while (pipe != nullptr && fgets(buf, sizeof buf, pipe) != nullptr)
    lines.emplace_back(buf, strcspn(buf, "\r\n"));
  if (pipe != nullptr) pclose(pipe);
  return lines;
}

// Names of the defined dynamic symbols ("address type name").
std::set<std::string> definedSymbols(bool demangle) {
  std::set<std::string> names;
  const std::string command = std::string("nm -D --defined-only ") + (demangle ? "-C '" : "'") + kLibrary + "'";
  for (const std::string& line : runLines(command)) {
    const size_t name = line.find(' ', line.find(' ') + 1);  // npos + 1 is 0: no space, no name
    if (name != std::string::npos) names.insert(line.substr(name + 1));
  }
  return names;
}

TEST(SharedLibrary, SonameAndExportedNames) {
  const std::vector<std::string> dynamic = runLines("readelf -d '" + kLibrary + "' | grep SONAME");
  ASSERT_EQ(dynamic.size(), 1u) << "no SONAME entry";
  EXPECT_NE(dynamic[0].find("[libSegmentationCore.camera.norvane.so]"), std::string::npos) << dynamic[0];

  const std::set<std::string> demangled = definedSymbols(true), raw = definedSymbols(false);
  ASSERT_FALSE(raw.empty()) << "nm read nothing from " << kLibrary;
  int listed = 0;
  for (const auto& entry : std::filesystem::directory_iterator(SEGCORE_SYMBOL_LISTS)) {
    if (entry.path().extension() != ".txt") continue;
    std::ifstream in(entry.path());
    for (std::string name; std::getline(in, name);) {
      if (name.empty() || name[0] == '#') continue;
      ++listed;
      const bool cxx = name.find('(') != std::string::npos || name.find("::") != std::string::npos;
      EXPECT_TRUE((cxx ? demangled : raw).count(name) > 0) << "not exported: " << name;
    }
  }
  EXPECT_GT(listed, 10);
  // Helpers in anonymous namespaces stay hidden.
  for (const std::string& name : demangled)
    EXPECT_EQ(name.find("(anonymous namespace)"), std::string::npos) << name;
}

}  // namespace
