#include "tests/platform/avi_content.h"

#include <map>

#include "platform/bytes.h"

namespace {

class Reader {
 public:
  Reader(const std::string& file, bool cut) : file_(file), cut_(cut) {}

  AviContent read() {
    if (tag(0) != "RIFF" || tag(8) != "AVI ") return wrong("no AVI file");
    readHead();
    std::size_t at = 0;
    while (content_.wrong.empty() && at + 12 <= file_.size() && tag(at) == "RIFF") {
      if (at > 0 && tag(at + 8) != "AVIX") return wrong("no further RIFF");
      readRiff(at);
      ++content_.riffs;
      at += 8 + word(at + 4);
    }
    content_.covered = at;
    if (at > file_.size() && !cut_) return wrong("a RIFF longer than the file");
    if (content_.wrong.empty()) readIndex();
    return content_;
  }

 private:
  std::uint32_t word(std::size_t at) const {
    return at + 4 <= file_.size() ? loadLe32(file_.data() + at) : 0;
  }
  std::string tag(std::size_t at) const { return at < file_.size() ? file_.substr(at, 4) : ""; }
  const AviContent& wrong(const std::string& what) {
    if (content_.wrong.empty()) content_.wrong = what;
    return content_;
  }

  void readHead() {
    if (tag(12) != "LIST" || tag(20) != "hdrl" || tag(24) != "avih" || tag(100) != "strh" ||
        tag(164) != "strf" || tag(4084) != "LIST" || tag(4092) != "movi") {
      wrong("no head");
      return;
    }
    content_.rate = word(128 + 4);
    if (word(128) != 1000 || content_.rate == 0) wrong("no rate");
    content_.counted = word(140);
    content_.width = static_cast<int>(word(64));
    content_.height = static_cast<int>(word(68));
    content_.tag = tag(112);
    const std::uint32_t format = word(168);
    content_.header = file_.substr(172 + 40, format - 40);
    table_ = 172 + format;
    if (tag(table_) != "indx") wrong("no table of the index");
    if (tag(table_ + 8 + 24 + 236 * 16) != "LIST") wrong("no extension");
    if (word(table_ + 8 + 24 + 236 * 16 + 20) != content_.counted) wrong("two numbers of pictures");
  }

  // The chunks from `at` to `end`.
  void readMovi(std::size_t at, std::size_t end) {
    while (at + 8 <= end && content_.wrong.empty()) {
      const std::uint32_t size = word(at + 4);
      const std::size_t next = at + 8 + size + size % 2;
      if (next > file_.size()) {
        if (!cut_) wrong("a chunk that is not there");
        return;
      }
      if (next > end) wrong("a chunk longer than its list");
      if (tag(at) == "00dc") {
        if (size == 0) wrong("a picture without an end");
        places_[at + 8] = content_.pictures.size();
        content_.pictures.push_back(file_.substr(at + 8, size));
        if (size % 2 != 0 && file_[at + 8 + size] != '\0') wrong("filling");
      } else if (tag(at) != "ix00" && tag(at) != "JUNK") {
        wrong("a strange chunk");
      }
      at = next;
    }
    if (at != end && !cut_) wrong("a list with a rest");
  }

  void readRiff(std::size_t at) {
    const std::size_t end = at + 8 + word(at + 4);
    const std::size_t list = at == 0 ? 4084 : at + 12;
    const std::size_t listEnd = list + 8 + word(list + 4);
    if (tag(list) != "LIST" || tag(list + 8) != "movi") wrong("no list of pictures");
    if (listEnd > end || (at > 0 && listEnd != end)) wrong("a list longer than its RIFF");
    readMovi(list + 12, listEnd);
    if (at > 0) return;
    const bool flag = (word(44) & 0x10) != 0;
    if (flag != (listEnd != end)) wrong("a flag of an index that is not there");
    if (word(48) > content_.pictures.size() && !cut_) wrong("too many pictures in the first RIFF");
    if (!flag || listEnd + 8 > file_.size()) return;
    if (tag(listEnd) != "idx1" || listEnd + 8 + word(listEnd + 4) != end) wrong("no idx1");
    content_.old = word(listEnd + 4) / 16;
    for (std::size_t i = 0; i < content_.old && end <= file_.size(); ++i) {
      const std::size_t entry = listEnd + 8 + i * 16;
      const auto place = places_.find(4092 + word(entry + 8) + 8);
      if (place == places_.end() || place->second != i ||
          content_.pictures[i].size() != word(entry + 12))
        wrong("an entry of idx1");
    }
    if (end <= file_.size() && content_.old != content_.pictures.size()) wrong("a short idx1");
  }

  void readIndex() {
    const std::uint32_t blocks = word(table_ + 12);
    content_.blocks = blocks;
    for (std::uint32_t i = 0; i < blocks; ++i) {
      const std::size_t entry = table_ + 32 + i * 16;
      const std::size_t at = word(entry) | std::uint64_t{word(entry + 4)} << 32;
      const std::uint32_t count = word(at + 12);
      if (at + word(entry + 8) > file_.size()) {
        if (!cut_) wrong("a block that is not there");
        return;
      }
      if (tag(at) != "ix00" || word(at + 4) + 8 != word(entry + 8)) wrong("no block");
      if (word(entry + 12) > count || 32 + count * 8 > word(entry + 8)) wrong("too many entries");
      if ((word(at + 20) | std::uint64_t{word(at + 24)} << 32) != at) wrong("base");
      for (std::uint32_t n = 0; n < count; ++n) {
        const std::uint32_t size = word(at + 32 + n * 8 + 4);
        const auto place = places_.find(at + word(at + 32 + n * 8));
        if (place == places_.end() && cut_) return;
        if (place == places_.end() || place->second != content_.indexed ||
            content_.pictures[place->second].size() != (size & 0x7fffffff)) {
          wrong("an entry of the index");
          return;
        }
        content_.keys.push_back((size & 0x80000000) == 0);
        ++content_.indexed;
      }
    }
  }

  const std::string& file_;
  bool cut_;
  AviContent content_;
  std::size_t table_ = 0;
  std::map<std::size_t, std::size_t> places_;  // of pictures' data
};

}  // namespace

AviContent readAvi(const std::string& file, bool cut) { return Reader(file, cut).read(); }
