// The node's stable 64-bit id: what the node's agent announces and what
// "NodeIDs" of its resources carries. It is made once, at random, and kept
// in the state directory (file "node-id"), so that it stays unique where
// nodes share /etc/machine-id (containers, namespaces) and stays the same
// across restarts. Plain functions; callers serialise the use of one
// directory.
#ifndef VELT_AGENT_NODE_IDENTITY_H_
#define VELT_AGENT_NODE_IDENTITY_H_

#include <stdint.h>

#include <string>

namespace velt {
namespace agent {

constexpr char kNodeIdFileName[] = "node-id";

// The file's content for id: 16 lowercase hex digits and a newline.
std::string formatNodeId(uint64_t id);

// The value of --node-id: 1 to 16 hex digits, with or without "0x", not 0.
// Returns 0 with *id set, or -1.
int parseNodeIdOption(const std::string& text, uint64_t* id);

// The node's id from dir:
//  * override (not 0, from --node-id) is written to dir/node-id and used;
//  * otherwise dir/node-id is read: 16 hex digits and a newline; anything
//    else (or 0) is set aside as node-id.bad.<unix time> and a new id is
//    made;
//  * a missing file: a new id is made from getrandom() (never 0) and written
//    atomically.
// Returns 0 with *id set; *why tells what happened when it was more than a
// plain read (an id made, an override written, a file set aside), for the
// log, and is left empty otherwise. Returns -1 with *why set when the id
// could not be kept in dir (or no random id could be had); *id is then the
// id this start would use (0 when none), which will not survive a restart.
int loadOrCreateNodeId(const std::string& dir, uint64_t override, uint64_t* id,
                       std::string* why);

}  // namespace agent
}  // namespace velt

#endif  // VELT_AGENT_NODE_IDENTITY_H_
