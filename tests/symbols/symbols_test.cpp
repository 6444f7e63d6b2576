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

std::vector<std::string> runLines(const std::string& command) {
  std::vector<std::string> lines;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return lines;
  char buf[4096];
  while (fgets(buf, sizeof buf, pipe) != nullptr) {
    std::string line(buf);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    lines.push_back(line);
  }
  pclose(pipe);
  return lines;
}

// Names of the defined dynamic symbols ("address type name").
std::set<std::string> definedSymbols(bool demangle) {
  std::set<std::string> names;
  const std::string cmd = std::string("nm -D --defined-only ") + (demangle ? "-C " : "") + "'" +
                          SEGCORE_LIBRARY_FILE + "'";
  for (const std::string& line : runLines(cmd)) {
    const size_t first = line.find(' ');
    const size_t second = first == std::string::npos ? first : line.find(' ', first + 1);
    if (second != std::string::npos) names.insert(line.substr(second + 1));
  }
  return names;
}

std::vector<std::string> expectedNames() {
  std::vector<std::string> names;
  DIR* dir = opendir(SEGCORE_SYMBOL_LISTS);
  if (dir == nullptr) return names;
  std::vector<std::string> files;
  while (dirent* e = readdir(dir)) {
    const std::string f = e->d_name;
    if (f.size() > 4 && f.compare(f.size() - 4, 4, ".txt") == 0) files.push_back(f);
  }
  closedir(dir);
  for (const std::string& f : files) {
    std::ifstream in(std::string(SEGCORE_SYMBOL_LISTS) + "/" + f);
    std::string line;
    while (std::getline(in, line)) {
      if (!line.empty() && line[0] != '#') names.push_back(line);
    }
  }
  return names;
}

TEST(SharedLibrary, SonameIsTheLibraryFileName) {
  bool found = false;
  for (const std::string& line : runLines(std::string("readelf -d '") + SEGCORE_LIBRARY_FILE + "'")) {
    if (line.find("(SONAME)") == std::string::npos) continue;
    found = true;
    EXPECT_NE(line.find("[libSegmentationCore.camera.norvane.so]"), std::string::npos) << line;
  }
  EXPECT_TRUE(found) << "no SONAME entry";
}

TEST(SharedLibrary, ExportsEveryListedName) {
  const std::set<std::string> demangled = definedSymbols(true);
  const std::set<std::string> raw = definedSymbols(false);
  ASSERT_FALSE(raw.empty()) << "nm read nothing from " << SEGCORE_LIBRARY_FILE;
  const std::vector<std::string> expected = expectedNames();
  ASSERT_GT(expected.size(), 10u);
  for (const std::string& name : expected) {
    const bool cxx = name.find('(') != std::string::npos || name.find("::") != std::string::npos;
    EXPECT_TRUE(cxx ? demangled.count(name) > 0 : raw.count(name) > 0) << "not exported: " << name;
  }
}

TEST(SharedLibrary, HelpersStayHidden) {
  const std::set<std::string> demangled = definedSymbols(true);
  for (const std::string& name : demangled) {
    EXPECT_EQ(name.find("(anonymous namespace)"), std::string::npos) << name;
  }
}

}  // namespace
