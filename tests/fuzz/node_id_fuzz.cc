// Feeds arbitrary bytes to veltd's reading of the node's id: as the
// node-id file in a state directory (loadOrCreateNodeId) and as the text
// of --node-id (parseNodeIdOption). The file's exact form is taken as it
// is; anything else is set aside (never more files than the bound) and a
// new id is made and kept; the option takes 1 to 16 hex digits, with or
// without "0x", and never 0.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "fuzz_input.h"
#include "node_identity.h"
#include "state_files.h"

namespace {

[[noreturn]] void fail(const std::string& what) {
  fprintf(stderr, "node_id_fuzz: %s\n", what.c_str());
  abort();
}

bool isHex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

void checkFile(const std::string& bytes) {
  const std::string& dir = velt_fuzz::scratchDir();
  const std::string path = dir + "/" + velt::agent::kNodeIdFileName;
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) fail("cannot write the file");
  if (!bytes.empty() && fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) fail("cannot write the file");
  fclose(f);

  uint64_t id = 0;
  std::string why;
  if (velt::agent::loadOrCreateNodeId(dir, 0, &id, &why) != 0) fail("no id from a readable directory: " + why);
  if (id == 0) fail("the id 0");
  bool exact = bytes.size() == 17 && bytes[16] == '\n';
  for (size_t i = 0; exact && i < 16; ++i) exact = isHex(bytes[i]);
  exact = exact && bytes != "0000000000000000\n";
  if (exact) {
    if (!why.empty() || strtoull(bytes.substr(0, 16).c_str(), nullptr, 16) != id) fail("a good file not taken");
  } else if (why.find("set aside") == std::string::npos) {
    fail("a bad file not set aside: " + why);
  }
  // A good file stays as it was; otherwise the new id is kept in its exact
  // form. Either way it reads back.
  std::string kept, problem;
  if (velt::agent::readStateFile(dir, velt::agent::kNodeIdFileName, 4096, &kept, &problem) !=
          velt::agent::StateFileRead::kRead ||
      kept != (exact ? bytes : velt::agent::formatNodeId(id))) {
    fail("the id kept is not the id used");
  }
  uint64_t again = 0;
  if (velt::agent::loadOrCreateNodeId(dir, 0, &again, &why) != 0 || again != id || !why.empty()) {
    fail("the id kept does not read back");
  }
  size_t aside = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir)) {
    if (e.path().filename().string().rfind("node-id.bad.", 0) == 0) ++aside;
  }
  if (aside > velt::agent::kMaxSetAsideFiles) fail("more set-aside files than the bound");
  remove(path.c_str());
}

void checkOption(const std::string& text) {
  uint64_t id = 0;
  size_t from = text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') ? 2 : 0;
  bool digits = text.size() > from && text.size() - from <= 16;
  for (size_t i = from; digits && i < text.size(); ++i) digits = isHex(text[i]);
  const uint64_t want = digits ? strtoull(text.c_str() + from, nullptr, 16) : 0;
  const int rc = velt::agent::parseNodeIdOption(text, &id);
  if (digits && want != 0) {
    if (rc != 0 || id != want) fail("a good --node-id refused: " + text);
  } else if (rc == 0) {
    fail("a bad --node-id taken: " + text);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] % 2 == 0) {
    checkFile(bytes);
  } else {
    checkOption(bytes);
  }
  return 0;
}
