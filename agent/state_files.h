// The files veltd keeps in its state directory: written atomically so that
// a crash leaves the old or the new content and never a mix, read with a
// bound, and set aside (kept for a look, never trusted) when damaged.
// Plain functions; callers serialise the use of one directory.
#ifndef VELT_AGENT_STATE_FILES_H_
#define VELT_AGENT_STATE_FILES_H_

#include <stddef.h>

#include <string>

namespace velt {
namespace agent {

// A damaged file NAME is renamed NAME.bad.<unix time>; at most this many
// of them are kept per NAME (the newest), older ones are removed.
constexpr size_t kMaxSetAsideFiles = 3;

// Replaces dir/name with bytes: a temporary file in dir, written, synced,
// renamed over name, then dir synced. Returns 0, or -1 with *why set (the
// old file, if any, is then untouched).
int writeStateFile(const std::string& dir, const std::string& name, const std::string& bytes,
                   std::string* why);

enum class StateFileRead {
  kRead,        // *bytes holds the content
  kAbsent,      // no such file
  kNotRegular,  // a directory, link, pipe, ... of that name: not ours
  kTooLarge,    // more than maxBytes
  kError,       // it could not be read (*why says why)
};

// Reads dir/name without following a link and without reading more than
// maxBytes.
StateFileRead readStateFile(const std::string& dir, const std::string& name, size_t maxBytes,
                            std::string* bytes, std::string* why);

// Renames dir/name to name.bad.<unix time> (name.bad.<time>-<n> when that
// second already has one) and removes the oldest such files past
// kMaxSetAsideFiles. Returns 0 with *asideName set to the new name, or -1
// with *why set.
int setAsideStateFile(const std::string& dir, const std::string& name, std::string* asideName,
                      std::string* why);

// Removes the temporaries of name that an interrupted writeStateFile left.
void removeStaleTemporaries(const std::string& dir, const std::string& name);

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_STATE_FILES_H_
