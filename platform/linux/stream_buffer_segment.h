// The file of a stream buffer: building one, opening one.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <string>

#include "platform/linux/stream_buffer_layout.h"
#include "platform/linux/stream_buffer_mapping.h"
#include "platform/relaxed.h"

namespace sb {

// One mapped segment. Neither unmapped nor closed once a handle was given out: closing any
// descriptor of the file would drop all locks that the process has on it.
struct Segment {
  int fd = -1;
  dev_t device = 0;
  ino_t inode = 0;
  Geometry geometry;  // private copy, checked once
  std::uint32_t epoch = 0;
  Mapping* mapping = nullptr;     // head and frames in one piece; frames read-only at first
  unsigned char* base = nullptr;  // of the mapping

  Head& head() const { return *reinterpret_cast<Head*>(base); }
  Word* words(std::uint32_t at) const { return reinterpret_cast<Word*>(base + at); }
  unsigned char* frame(std::uint32_t index) const {
    return base + geometry.dataOffset + index * geometry.stride;
  }
};

enum class OpenResult { kOpened, kMissing, kRefused };

// Opens and maps the segment at `path` after checking everything that it says about itself.
// On kRefused `*reason` tells why, in words, and nothing stays open.
OpenResult openSegment(const std::string& path, Segment* segment, const char** reason);

// Lets the process write into the frames. Returns false iff the kernel refuses.
bool makeWritable(const Segment& segment);

// Returns true iff a file or folder of `uid` may be trusted: root's, our own, or, for a tool that
// looks into a file tree from outside, the tree owner's.
bool trustedOwner(uid_t uid);

// What the frames are aligned to: the same in all processes of a system.
std::uint32_t pageSize();

// Builds a segment under a name of its own beside `path`, with all its space allocated, and removes
// what creators that died have left there. `values`: of its slots, kSlots of them; null: all 0.
// Returns its name, empty on failure with `errno`.
std::string buildSegment(const std::string& path, const Geometry& geometry,
                         const Relaxed<std::int32_t>* values);

// Returns true iff the segment's file has another size than it was made with.
bool wrongSize(const Segment& segment);
// Gives the file its size and its space back. Returns false with `errno` when that fails.
bool restoreSize(const Segment& segment);
// Gives the head the words back that never change. Returns true iff one was another.
bool restoreHead(const Segment& segment);

// Gives a built segment its name, replacing the file `old` that has it; 0: none has.
// Returns 0; EEXIST when another file has the name; or another error. The private name is gone in
// any case.
int publishSegment(const std::string& built, const std::string& path, ino_t old);

// Wakes all who wait for a frame of the segment.
void wakeAll(Head& head);

// The group that may attach, from the file tree's /etc/group; -1: no such group.
gid_t cameraGroup();

}  // namespace sb
