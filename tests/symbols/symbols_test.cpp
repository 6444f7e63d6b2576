// The built shared library: its SONAME and its dynamic symbol table against
// the lists of exported names in this folder (*.txt, one name a line).
// A name with "(" or "::" is compared with the demangled table; a plain name
// must appear unmangled, exactly as written.
#include <gtest/gtest.h>

#include <dirent.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <string>
#include <vector>

namespace {

const std::string kLibrary = SEGCORE_LIBRARY_FILE;

std::vector<std::string> runLines(const std::string& command) {
  std::vector<std::string> lines;
  FILE* pipe = popen(command.c_str(), "r");
  char buf[4096];
  while (pipe != nullptr && fgets(buf, sizeof buf, pipe) != nullptr) {
    std::string line(buf);
    line.erase(line.find_last_not_of("\r\n") + 1);
    lines.push_back(line);
  }
  if (pipe != nullptr) pclose(pipe);
  return lines;
}

// Names of the defined dynamic symbols ("address type name").
std::set<std::string> definedSymbols(bool demangle) {
  std::set<std::string> names;
  for (const std::string& line :
       runLines(std::string("nm -D --defined-only ") + (demangle ? "-C '" : "'") + kLibrary + "'")) {
    const size_t first = line.find(' ');
    const size_t second = first == std::string::npos ? first : line.find(' ', first + 1);
    if (second != std::string::npos) names.insert(line.substr(second + 1));
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
  DIR* dir = opendir(SEGCORE_SYMBOL_LISTS);
  ASSERT_NE(dir, nullptr);
  while (const dirent* e = readdir(dir)) {
    const std::string f = e->d_name;
    if (f.size() <= 4 || f.compare(f.size() - 4, 4, ".txt") != 0) continue;
    std::ifstream in(std::string(SEGCORE_SYMBOL_LISTS) + "/" + f);
    for (std::string name; std::getline(in, name);) {
      if (name.empty() || name[0] == '#') continue;
      ++listed;
      const bool cxx = name.find('(') != std::string::npos || name.find("::") != std::string::npos;
      EXPECT_TRUE((cxx ? demangled : raw).count(name) > 0) << "not exported: " << name;
    }
  }
  closedir(dir);
  EXPECT_GT(listed, 10);
  // Helpers in anonymous namespaces stay hidden.
  for (const std::string& name : demangled)
    EXPECT_EQ(name.find("(anonymous namespace)"), std::string::npos) << name;
}

}  // namespace
