// What may go from a full share, and what must stay.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

class Feed;

// What there is on the share: by path, with what tells a change.
struct Entry {
  off_t size = 0;
  ino_t inode = 0;
  std::int64_t changedNs = 0;
  bool regular = false;
  bool operator==(const Entry& other) const {
    return size == other.size && inode == other.inode && changedNs == other.changedNs;
  }
};
using Listing = std::map<std::string, Entry>;
Listing listShare();  // files and links; folders show by what is in them

// Follows a recorder that makes room: compares what is there before and after each frame. It says
// what is wrong as test failures. Bound to one thread.
class RoomModel {
 public:
  // `feed`: what the recorder gets; must outlive the model. `pictures`: each is of so many bytes.
  RoomModel(const Feed& feed, std::size_t pictures) : feed_(feed), pictureBytes_(pictures) {}

  void before();
  void after();

  // At the end: the film that was open is closed.
  void end();

  int rounds() const { return rounds_; }        // how often room was made
  int days() const { return days_; }            // of those: by a whole day
  std::size_t films() const { return films_; }  // so many were judged
  std::size_t lost() const { return lostPictures_; }

 private:
  void judge(const Listing& now);
  void judgeRemoval(const Listing& now);
  bool removeOldest(Listing* listing, const std::string& folder, int* days) const;
  void judgeFilm(const std::string& path);

  const Feed& feed_;
  std::size_t pictureBytes_;
  Listing before_;
  std::uint64_t roomBefore_ = 0;
  std::string current_;             // the film that grows
  std::string folder_;              // that is recorded to
  std::uint32_t next_ = 0;          // the picture that the next film has to begin with; 0: any
  std::set<std::uint32_t> failed_;  // pictures at which room was made
  int rounds_ = 0;
  int days_ = 0;
  std::size_t films_ = 0;
  std::size_t lostPictures_ = 0;
};
