// Loads the built library as a host does and uses only what it exports.

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>

#include "tavo_video_vlink.h"
#include "tests/support/loaded_library.h"
#include "tests/support/log_capture.h"

namespace {

std::set<std::string> ExportedSymbols(const char* library) {
  std::set<std::string> symbols;
  const std::string command = std::string("nm -D --defined-only ") + library;
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  char name[512];
  while (pipe && std::fscanf(pipe.get(), "%*s %*s %511s", name) == 1) {  // address, kind, name
    symbols.insert(name);
  }
  return symbols;
}

// How the guide writes a symbol: C names as they are, C++ ones as the qualified name without
// parameters ("ImageUtils::GetBmpInfo"); the vtable and type information by their class.
std::string DocumentedName(const std::string& symbol) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(
      abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status), std::free);
  if (status != 0 || !demangled) {
    return symbol;
  }
  std::string name = demangled.get();
  for (const std::string prefix : {"vtable for ", "typeinfo name for ", "typeinfo for "}) {
    if (name.rfind(prefix, 0) == 0) {
      name.erase(0, prefix.size());
    }
  }
  return name.substr(0, name.find('('));
}

using HostInterfaceTest = LoadedLibraryTest;
// An exported function, looked up by its own name.
#define EXPORTED(name) Symbol<decltype(name)>(#name)

// The list is kept in the tree so that every change to the host interface shows in review,
// and the host integration guide names every symbol on it.
TEST_F(HostInterfaceTest, ExportsOnlyTheHostInterfaceAndTheGuideNamesEach) {
  std::set<std::string> expected;
  std::ifstream list(VLINK_EXPECTED_EXPORTS);
  ASSERT_TRUE(list.good()) << VLINK_EXPECTED_EXPORTS;
  for (std::string name; list >> name;) {
    expected.insert(name);
  }
  EXPECT_EQ(ExportedSymbols(VLINK_LIBRARY_PATH), expected);

  std::ifstream guideFile(VLINK_HOST_GUIDE);
  ASSERT_TRUE(guideFile.good()) << VLINK_HOST_GUIDE;
  const std::string guide((std::istreambuf_iterator<char>(guideFile)),
                          std::istreambuf_iterator<char>());
  for (const std::string& symbol : expected) {
    EXPECT_NE(guide.find(DocumentedName(symbol)), std::string::npos)
        << DocumentedName(symbol) << " (" << symbol << ") is not in " << VLINK_HOST_GUIDE;
  }
}

std::string g_lastTrace;
void RememberTrace(uint32_t /*level*/, const char* text) { g_lastTrace = text; }

TEST_F(HostInterfaceTest, TraceControlsContainersAndInertEntryPointsThroughTheExports) {
  LogCapture logs;
  auto* init = EXPORTED(TavoVideoVlinkInit);
  auto* setLevel = EXPORTED(TavoVideoSetTraceLevel);
  auto* registerTrace = EXPORTED(TavoVideoRegisterTraceCallBack);
  auto* getContainer = EXPORTED(TavoVideoGetDataContainer);
  auto* releaseContainer = EXPORTED(TavoVideoReleaseDataContainer);
  auto* level = Symbol<unsigned char>("g_ucOSVLinkTraceLevel");
  ASSERT_TRUE(init && setLevel && registerTrace && getContainer && releaseContainer && level);

  EXPECT_EQ(init(0, 0, [] {}), 0U);
  EXPECT_TRUE(logs.HasModule("TavoVideoVlinkInit OK", 3));

  // The trace controls' refusals as a host meets them: the exported codes, and the level it
  // reads.
  EXPECT_EQ(registerTrace(0, RememberTrace), 0U);
  EXPECT_EQ(registerTrace(3, RememberTrace), 0xFFFFFFFFU);
  EXPECT_EQ(registerTrace(0, nullptr), 0xFFFFFFFFU);
  EXPECT_EQ(setLevel(0x104), 0U);  // only the low 8 bits count
  EXPECT_EQ(setLevel(5), 0xFFFFFFFFU);
  EXPECT_EQ(*level, 4);  // a refused level changes nothing

  // A container the host fills is the one the library keeps under that name.
  DataContainer* container = getContainer("Node[40]PresentParam");
  EXPECT_NE(container, nullptr);
  EXPECT_EQ(getContainer("Node[40]PresentParam"), container);
  EXPECT_EQ(releaseContainer("Node[40]PresentParam"), 0U);
  EXPECT_EQ(releaseContainer("Node[40]PresentParam"), 1U);
  EXPECT_NE(g_lastTrace.find("Cannot release dataContainer[Node[40]PresentParam]"),
            std::string::npos);
  EXPECT_EQ(setLevel(0), 0U);

  // The inert entry points answer their fixed codes (the renderer's answers to a null manager
  // are its own tests).
  EXPECT_EQ(EXPORTED(TavoVideoVlinkVoSetDefaultImage)(4242), 1U);
  const tagTavoVideoSnapshotFuncMap* snapshot = nullptr;
  uint32_t count = 99;
  EXPECT_EQ(EXPORTED(TavoVideoGetSnapshotFuncMap)(&snapshot, &count), 0U);
  EXPECT_EQ(count, 0U);
  EXPECT_EQ(EXPORTED(TavoVideoGetSnapshotFuncMap)(nullptr, &count), 1U);
  EXPECT_EQ(EXPORTED(TavoVideoFindFreeVoChnId)(1, 2, 3), 1U);
  EXPECT_EQ(EXPORTED(TavoVideoKeepWindow)(), 0U);
}

}  // namespace
