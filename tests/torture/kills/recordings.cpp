#include "tests/torture/kills/recordings.h"

#include <filesystem>
#include <vector>

#include "platform/bytes.h"
#include "platform/linux/avi_repair.h"
#include "tests/avi_check/avi_report.h"
#include "tests/torture/kills/faults.h"
#include "tests/torture/kills/processes.h"

namespace {

constexpr std::uintmax_t kHeadBytes = 4096;  // of a film, ahead of its pictures
constexpr std::uint64_t kChunkHead = 8;
constexpr std::size_t kClipHead = 8;  // of a clip of one picture: a word and its length
// A film is brought up to date with the first picture after 0.9 s.
constexpr double kFilmLagMs = 1200;

std::vector<std::string> filesIn(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator one(folder, error), end; !error && one != end;
       one.increment(error))
    if (one->is_regular_file(error)) files.push_back(one->path().string());
  return files;
}

std::string bytesOf(const std::string& path, const AviPicture& picture) {
  constexpr std::uint64_t kStreamHeader = 20;  // stands ahead of the first picture as well
  return contentOf(path).substr(picture.at + kChunkHead + kStreamHeader,
                                picture.size - kStreamHeader);
}

}  // namespace

// Behind it there may be the end of a longer one, which had the name before: a recorder that is
// built anew within a second, or a new life, takes the same name, and the file is not cut.
bool Recordings::isWhole(const std::string& content) const {
  if (pictures_ != nullptr) return pictures_->beginWhole(content);
  if (content.compare(0, 2, "\xff\xd8") == 0) return FrameWatch::isPicture(content);
  if (content.size() > kClipHead && content.compare(0, 4, "RIFF") == 0)
    return loadLe32(reinterpret_cast<const unsigned char*>(&content[4])) + kClipHead <=
           content.size();
  // In mode 3 it is a frame of the stream as it comes, which may begin in the middle of a picture.
  return !content.empty();
}

// Of a sensor's picture nobody knows how it would have gone on.
bool Recordings::isBeginning(const std::string& content) const {
  return pictures_ == nullptr || pictures_->begins(content);
}

// A picture of the same second takes the name, and the place, of the one before; of a longer one
// the end stays.
void Recordings::compare(const std::string& path, const std::string& content) {
  report_->count("files-seen-again");
  const std::string& before = judged_[path];
  if (content == before) return;
  report_->count("pictures-overwritten");
  const std::size_t fresh = pictures_ != nullptr ? pictures_->common(content) : 0;
  const bool over = fresh >= before.size() || content.substr(fresh) == before.substr(fresh);
  if (pictures_ != nullptr ? over : isWhole(content)) return;
  report_->broken("an earlier file has changed", path);
}

std::map<std::string, std::string> Recordings::newIn(const std::string& folder) {
  std::map<std::string, std::string> files;
  for (const std::string& path : filesIn(folder)) {
    if (path == kFiller) continue;
    const std::string content = contentOf(path);
    if (judged_.count(path) == 0) {
      files[path] = content;
      continue;
    }
    compare(path, content);
    std::filesystem::remove(path);
  }
  return files;
}

void Recordings::look(const End& end) {
  const auto pictures = newIn("/usb");
  const auto films = newIn("/smb");
  judged_ = pictures;
  judgePictures(pictures, end);
  for (const auto& film : films) {
    judgeFilm(film.first, end);
    judged_[film.first] = contentOf(film.first);
  }
}

void Recordings::judgePictures(const std::map<std::string, std::string>& files, const End& end) {
  int cut = 0;
  for (const auto& [path, content] : files) {
    report_->count("pictures");
    if (isWhole(content)) continue;
    ++cut;
    if (!isBeginning(content))
      report_->broken("a picture is damaged",
                      path + ", " + std::to_string(content.size()) + " bytes");
    else if (end.orderly && !end.spoiled)
      report_->broken("a picture is not whole after an end in order", path + ": " + end.how);
  }
  // The one that was being written ends where the kill has struck.
  report_->count("pictures-cut", cut);
  if (!end.orderly && !end.spoiled && cut > 1)
    report_->broken("one kill has cut several pictures", std::to_string(cut));
}

void Recordings::judgeFilm(const std::string& path, const End& end) {
  report_->count("films");
  if (!end.orderly) return judgeCutFilm(path, end);
  const AviReport seen = checkAvi(path, false);
  if (!seen.good() && !end.spoiled)
    report_->broken(
        "a film that was closed is not whole",
        path + ", " + std::to_string(seen.fileSize) + " bytes: " + end.how + ": " + seen.text());
}

void Recordings::judgeCutFilm(const std::string& path, const End& end) {
  if (std::filesystem::file_size(path) < kHeadBytes) {
    report_->count("films-empty");
    if (std::filesystem::file_size(path) > 0) report_->broken("a film without a head", path);
    return;
  }
  const AviReport seen = checkAvi(path, true);
  if (!seen.good()) report_->broken("a film that was cut", path + ": " + seen.text());
  if (seen.pictures.empty()) return;
  // One that was closed, when its events were built anew, may be as old as it likes.
  if (seen.cut && seen.counted > 0 && seen.counted <= seen.pictures.size()) {
    const long lag = watch_->behind(bytesOf(path, seen.pictures[seen.counted - 1]));
    report_->most("film-lag-ms", lag);
    report_->count(lag < 0 ? "films-unplaced" : "films-placed");
    if (static_cast<double>(lag) > kFilmLagMs + end.patienceMs)
      report_->broken("a film lacks more than its last second",
                      path + ": " + std::to_string(lag) + " ms");
  }
  const AviRepair repair = repairAvi(path.c_str());
  const AviReport mended = checkAvi(path, false);
  if (repair.result < 0 || !mended.good() || mended.pictures.size() != seen.pictures.size())
    report_->broken("a film can't be repaired", path + ": " + repair.reason + " " + mended.text());
}
