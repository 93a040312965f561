#include "tests/board/share_check/room_model.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>

#include "tests/avi_check/avi_report.h"
#include "tests/board/share_check/feed.h"

namespace fs = std::filesystem;

namespace {

constexpr char kRecordings[] = "/smb/camera/";
constexpr std::uint64_t kSlack = 64 << 10;  // of blocks, of an index, of a folder

constexpr char kDigits[] = "0123456789";

// Returns the day that a path lies in, as "/smb/camera/20261121"; empty: in none.
std::string dayOf(const std::string& path) {
  constexpr std::size_t kBegin = sizeof kRecordings - 1;
  constexpr std::size_t kEnd = kBegin + 8;
  if (path.compare(0, kBegin, kRecordings) != 0) return "";
  return path.find_first_not_of(kDigits, kBegin) == kEnd && path[kEnd] == '/' ? path.substr(0, kEnd)
                                                                              : "";
}

// What orders the recordings of a day: "120000-7.avi" comes behind "120000.avi". Empty: it is none.
std::string orderOf(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  const std::size_t point = name.find('.');
  const std::size_t time = std::min(name.find_first_not_of(kDigits), name.size());
  if (time != 6 || point == std::string::npos) return "";
  if (name.substr(point) != ".avi" && name.substr(point) != ".raw") return "";
  if (point == time) return name.substr(0, time) + std::string(10, '0');
  const std::string number = name.substr(time + 1, point - time - 1);
  if (name[time] != '-' || number.empty() || number.find_first_not_of(kDigits) != std::string::npos)
    return "";
  return name.substr(0, time) + std::string(10 - number.size(), '0') + number;
}

std::string dayOfNow() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  char name[32];
  std::strftime(name, sizeof name, "/smb/camera/%Y%m%d", std::localtime(&now.tv_sec));
  return name;
}

std::uint64_t room() {
  struct statvfs about {};
  statvfs("/smb", &about);
  return std::uint64_t{about.f_bavail} * about.f_frsize;
}

}  // namespace

Listing listShare() {
  Listing listing;
  for (const auto& entry : fs::recursive_directory_iterator("/smb")) {
    struct stat about {};
    if (lstat(entry.path().c_str(), &about) != 0 || S_ISDIR(about.st_mode)) continue;
    listing[entry.path().string()] = {about.st_size, about.st_ino,
                                      about.st_mtim.tv_sec * 1000000000 + about.st_mtim.tv_nsec,
                                      S_ISREG(about.st_mode)};
  }
  return listing;
}

void RoomModel::before() {
  if (feed_.number() == 1) before_ = listShare();  // later: what was there after the last one
  roomBefore_ = room();
}

void RoomModel::after() {
  const Listing now = listShare();
  judge(now);
  before_ = now;
}

void RoomModel::judge(const Listing& now) {
  const std::uint32_t number = feed_.number();
  std::string begun;
  for (const auto& [path, entry] : now) {
    if (before_.count(path) == 0) {
      EXPECT_EQ(begun, "") << "two films at once";
      EXPECT_TRUE(feed_.isKey(number)) << path << " begins with picture " << number;
      EXPECT_EQ(path.compare(0, std::strlen(kRecordings), kRecordings), 0) << path;
      begun = path;
    } else if (path != current_) {
      EXPECT_TRUE(entry == before_.at(path)) << path << " was changed by picture " << number;
    }
  }
  std::size_t kept = 0;
  for (const auto& one : before_) kept += now.count(one.first);
  if (kept < before_.size()) {
    failed_.insert(number);
    EXPECT_LT(roomBefore_, pictureBytes_ + kSlack) << "room was made without need";
    judgeRemoval(now);
  }
  if (now.count(current_) == 0) {  // it has gone with its day
    current_.clear();
    next_ = 0;
  }
  if (begun.empty()) return;
  if (!current_.empty()) judgeFilm(current_);
  folder_ = dayOf(begun);
  current_ = begun;
}

// What is gone must be what had to go: in steps, as often as it took. At the first picture of a day
// some of these may still belong to the day before.
void RoomModel::judgeRemoval(const Listing& now) {
  constexpr int kMostSteps = 3;  // to close a film, to open one, to write to it
  const std::string day = feed_.isKey(feed_.number()) ? dayOfNow() : folder_;
  std::string wrong;
  for (int before = 0; before <= kMostSteps; ++before) {
    Listing expected = before_;
    const auto asExpected = [&] {
      return std::all_of(before_.begin(), before_.end(), [&](const auto& one) {
        return expected.count(one.first) == now.count(one.first);
      });
    };
    int steps = 0, days = 0;
    while (steps < kMostSteps && !asExpected() &&
           removeOldest(&expected, steps < before ? folder_ : day, &days))
      ++steps;
    if (asExpected()) {
      rounds_ += steps;
      days_ += days;
      return;
    }
  }
  for (const auto& one : before_)
    if (now.count(one.first) == 0) wrong += one.first + '\n';
  ADD_FAILURE() << "at picture " << feed_.number() << " not what had to go is gone:\n" << wrong;
}

// Takes away what is the oldest while `folder` is recorded to. Returns false when there is nothing
// that may go.
bool RoomModel::removeOldest(Listing* listing, const std::string& folder, int* days) const {
  std::set<std::string> found;
  for (const auto& one : *listing)
    if (!dayOf(one.first).empty()) found.insert(dayOf(one.first));
  if (found.empty()) return false;
  const std::string oldest = *found.begin();
  if (oldest != folder) {
    ++*days;
    for (auto it = listing->begin(); it != listing->end();)
      it = dayOf(it->first) == oldest ? listing->erase(it) : std::next(it);
    return true;
  }
  std::map<std::string, std::string> films;  // by their order
  for (const auto& [path, entry] : *listing)
    if (dayOf(path) == oldest && entry.regular && !orderOf(path).empty())
      films[orderOf(path)] = path;
  int removed = 0;
  for (auto it = films.begin(); removed < 2 && it != films.end() && it->second != current_; ++it) {
    listing->erase(it->second);
    ++removed;
  }
  return removed > 0;
}

// A closed film is flawless, and has all pictures since the last one; those that were lost had no
// room, up to the next key picture.
void RoomModel::judgeFilm(const std::string& path) {
  const AviReport report = checkAvi(path, false);
  EXPECT_TRUE(report.good()) << path << ": " << report.text();
  ASSERT_FALSE(report.pictures.empty()) << path;
  std::ifstream file(path, std::ios::binary);
  std::uint32_t previous = 0;
  for (const AviPicture& picture : report.pictures) {
    std::string head(std::min<std::size_t>(picture.size, 100), '\0');
    file.seekg(static_cast<std::streamoff>(picture.at + 8));
    file.read(head.data(), static_cast<std::streamsize>(head.size()));
    const std::uint32_t number = Feed::numberIn(head);
    if (previous != 0) {
      EXPECT_EQ(number, previous + 1) << path;
    } else if (next_ != 0 && number != next_) {
      EXPECT_GT(number, next_) << path;
      EXPECT_EQ(failed_.count(next_), 1U) << "pictures are missing ahead of " << path;
      std::uint32_t key = next_ + 1;
      while (!feed_.isKey(key)) ++key;
      EXPECT_EQ(number, key) << path;
      lostPictures_ += number - next_;
    }
    previous = number;
  }
  EXPECT_TRUE(report.pictures.front().key) << path;
  next_ = previous + 1;
  ++films_;
}

void RoomModel::end() {
  if (!current_.empty()) judgeFilm(current_);
}
