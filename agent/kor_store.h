// KorStore: the KOR resources an agent last held, kept in its state
// directory (file "kor-resources") so that a restart of the whole cluster
// does not forget the nodes and interfaces of nodes that are still down.
//
// File format, integers little-endian:
//   8 bytes  magic "VELTKOR\0"
//   4 bytes  format version (kKorStoreVersion)
//   8 bytes  payload length
//   4 bytes  CRC-32C of the payload
//   payload  a serialized KorImage
// A file that is damaged or of another kind is set aside (see
// setAsideStateFile), never trusted and never fatal.
// Plain functions; callers serialise the use of one directory.
#ifndef VELT_AGENT_KOR_STORE_H_
#define VELT_AGENT_KOR_STORE_H_

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "velt.pb.h"

namespace velt {
namespace agent {

constexpr char kKorStoreFileName[] = "kor-resources";
constexpr char kKorStoreMagic[8] = {'V', 'E', 'L', 'T', 'K', 'O', 'R', '\0'};
constexpr uint32_t kKorStoreVersion = 1;
constexpr size_t kKorStoreHeaderBytes = 8 + 4 + 8 + 4;
// No file larger than this is read (nor written).
constexpr size_t kKorStoreMaxFileBytes = 64u * 1024 * 1024;

// CRC-32C (Castagnoli, reflected, as iSCSI and ext4 use it), table-driven.
// crc continues an earlier result; 0 starts.
uint32_t crc32c(const void* data, size_t len, uint32_t crc = 0);

class KorStore {
 public:
  enum class Load {
    kLoaded,      // *image holds the file's content
    kAbsent,      // there is no file: start empty
    kSetAside,    // the file was damaged or not ours; renamed *.bad.<time>
    kUnreadable,  // the file could not be read (I/O, permissions) or, damaged,
                  // could not be renamed: left as it is
  };

  // The file's bytes for image, and back. decode returns 0, or -1 with
  // *why saying what is wrong (for the log).
  static std::string encode(const proto::KorImage& image);
  static int decode(const std::string& bytes, proto::KorImage* image, std::string* why);

  // Writes image atomically to dir/kor-resources. Returns 0, or -1 with
  // *why set (the previous file then stays).
  static int save(const std::string& dir, const proto::KorImage& image, std::string* why);
  // Reads dir/kor-resources. *image is cleared unless kLoaded; *why gets the
  // reason for kSetAside and kUnreadable (with the name the file was set
  // aside as). Temporaries of an interrupted save are removed.
  static Load load(const std::string& dir, proto::KorImage* image, std::string* why);
};

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_KOR_STORE_H_
