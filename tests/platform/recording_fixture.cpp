#include "tests/platform/recording_fixture.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

extern "C" {
#include <libavformat/avformat.h>
}

#include "board/hardware/jpeg.h"
#include "board/hardware/libav.h"
#include "board/hardware/mpeg4.h"
#include "board/hardware/test_scene.h"
#include "board/hardware/vol_header.h"
#include "tests/platform/hardware_fixture.h"

namespace {

constexpr int kWidth = 160, kHeight = 120;
constexpr int kPictures = 120;
constexpr int kKeyEvery = 10;
constexpr int kPictureMs = 100;
constexpr Rectangle kMoving = {100, 60, 500, 400};

template <typename Coder>
Film shoot(Coder coder) {
  Film film;
  TestScene scene(0);
  const Picture seen = makePicture(kSceneWidth, kSceneHeight);
  const Picture scaled = makePicture(kWidth, kHeight);
  for (int i = 0; i < kPictures; ++i) {
    scene.draw(std::int64_t{i} * kPictureMs, &kMoving, seen.get());
    scalePicture(*seen, scaled.get());
    std::vector<char> data;
    film.keys.push_back(coder(*scaled, i, &data));
    film.pictures.emplace_back(data.begin(), data.end());
  }
  return film;
}

// What the process's calls are told to do.
bool clockStands = false;
std::int64_t clockUs = 0;
bool journalOn = false;
std::size_t picturesTaken = 0;
std::vector<Write> journal;
bool zerosAreHoles = false;

bool isRegular(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

const Film& mpeg4Film() {
  static const Film film = [] {
    Mpeg4Coder coder;
    Film made = shoot([&coder](const AVFrame& picture, int i, std::vector<char>* data) {
      const bool key = i % kKeyEvery == 0;
      coder.encode(picture, std::int64_t{i} * kPictureMs, {6, key}, data);
      return key;
    });
    const auto header = volHeader(kWidth, kHeight);
    made.header.assign(header.begin(), header.end());
    return made;
  }();
  return film;
}

const Film& jpegFilm() {
  static const Film film = [] {
    JpegCoder coder;
    return shoot([&coder](const AVFrame& picture, int, std::vector<char>* data) {
      coder.encode(picture, 50, data);
      return true;
    });
  }();
  return film;
}

Film largePictures(std::size_t bytes) {
  Film film = mpeg4Film();
  film.pictures.resize(1);
  film.keys.resize(1);
  film.pictures[0].resize(bytes, '\0');
  return film;
}

extern "C" {
int __real_clock_gettime(clockid_t clock, timespec* time);
ssize_t __real_write(int fd, const void* data, std::size_t size);
ssize_t __real_pwrite64(int fd, const void* data, std::size_t size, off_t at);
int __real_ftruncate64(int fd, off_t length);

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
  if (!clockStands || clock == CLOCK_REALTIME) return __real_clock_gettime(clock, time);
  time->tv_sec = static_cast<time_t>(clockUs / 1000000);
  time->tv_nsec = static_cast<long>(clockUs % 1000000 * 1000);
  return 0;
}

ssize_t __wrap_pwrite64(int fd, const void* data, std::size_t size, off_t at) {
  const auto* bytes = static_cast<const char*>(data);
  if (journalOn && isRegular(fd)) {
    const auto offset = static_cast<std::uint64_t>(at);
    journal.push_back({Write::kData, offset, std::string(bytes, size), picturesTaken});
  }
  if (!zerosAreHoles) return __real_pwrite64(fd, data, size, at);
  static const std::vector<char> zeros(1 << 16, '\0');
  for (std::size_t done = 0; done < size;) {
    const std::size_t block = std::min(zeros.size(), size - done);
    if (std::memcmp(bytes + done, zeros.data(), block) != 0 &&
        __real_pwrite64(fd, bytes + done, block, at + static_cast<off_t>(done)) < 0)
      return -1;
    done += block;
  }
  struct stat status {};
  const off_t end = at + static_cast<off_t>(size);
  if (fstat(fd, &status) == 0 && status.st_size < end) __real_ftruncate64(fd, end);
  return static_cast<ssize_t>(size);
}

ssize_t __wrap_write(int fd, const void* data, std::size_t size) {
  if (!(journalOn || zerosAreHoles) || !isRegular(fd)) return __real_write(fd, data, size);
  const off_t at = lseek(fd, 0, SEEK_CUR);
  const ssize_t written = __wrap_pwrite64(fd, data, size, at);
  if (written > 0) lseek(fd, at + written, SEEK_SET);
  return written;
}

ssize_t __wrap_pwritev64(int fd, const iovec* pieces, int count, off_t at) {
  std::string all;  // one write, whatever it was gathered from
  for (int i = 0; i < count; ++i)
    all.append(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
  return __wrap_pwrite64(fd, all.data(), all.size(), at);
}

ssize_t __wrap_writev(int fd, const iovec* pieces, int count) {
  std::string all;
  for (int i = 0; i < count; ++i)
    all.append(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
  return __wrap_write(fd, all.data(), all.size());
}

int __wrap_ftruncate64(int fd, off_t length) {
  if (journalOn)
    journal.push_back({Write::kLength, static_cast<std::uint64_t>(length), "", picturesTaken});
  return __real_ftruncate64(fd, length);
}
}

StandingClock::StandingClock() {
  timespec now{};
  __real_clock_gettime(CLOCK_MONOTONIC, &now);
  clockUs = std::int64_t{now.tv_sec} * 1000000;
  clockStands = true;
}
StandingClock::~StandingClock() { clockStands = false; }
void StandingClock::advance(std::int64_t us) { clockUs += us; }

WriteJournal::WriteJournal() {
  journal.clear();
  picturesTaken = 0;
  journalOn = true;
}
WriteJournal::~WriteJournal() { journalOn = false; }
void WriteJournal::pictureTaken() { ++picturesTaken; }
const std::vector<Write>& WriteJournal::writes() const { return journal; }

HolesForZeros::HolesForZeros() { zerosAreHoles = true; }
HolesForZeros::~HolesForZeros() { zerosAreHoles = false; }

Recording::Recording(const Film& film, const std::string& file, std::int64_t us, int pieces,
                     const AviLimits& limits)
    : film_(film), us_(us), pieces_(pieces) {
  handle_.file = new AviFile(limits);
  if (aviCreate(&handle_) < 0) return;
  if (!film.header.empty()) std::memcpy(handle_.header, film.header.data(), sizeof handle_.header);
  open_ = aviOpen(&handle_, file.c_str()) >= 0;
}

Recording::~Recording() { aviRelease(&handle_); }

bool Recording::add(StandingClock* clock) {
  const std::string& data = film_.pictures[count_ % film_.pictures.size()];
  const std::size_t piece = data.size() / static_cast<std::size_t>(pieces_);
  const char type = film_.type(count_);
  bool taken = true;
  for (int i = 0; i < pieces_ && taken; ++i) {
    const std::size_t from = static_cast<std::size_t>(i) * piece;
    const std::size_t length = i == pieces_ - 1 ? data.size() - from : piece;
    handle_.type = i == 0 ? type : type == 'I' ? 'i' : 'p';
    taken = aviWrite(&handle_, data.data() + from, static_cast<long>(length)) >= 0;
  }
  if (taken) ++count_;
  if (journalOn && taken) ++picturesTaken;
  if (clock != nullptr) clock->advance(us_);
  return taken;
}

bool Recording::add(StandingClock* clock, int count) {
  for (; count > 0; --count)
    if (!add(clock)) return false;
  return true;
}

bool Recording::close(std::int32_t rate) {
  handle_.rate = rate != 0 ? rate : static_cast<std::int32_t>(1000000000 / us_);
  return aviClose(&handle_) >= 0;
}

namespace {

// Decodes with the strictness that a file of ours stands.
class Decoder {
 public:
  explicit Decoder(const AVCodecParameters& parameters) {
    const AVCodec* decoder = avcodec_find_decoder(parameters.codec_id);
    codec_.reset(avcodec_alloc_context3(decoder));
    avcodec_parameters_to_context(codec_.get(), &parameters);
    codec_->err_recognition = AV_EF_EXPLODE | AV_EF_BITSTREAM | AV_EF_BUFFER;
    codec_->thread_count = 1;
    good_ = avcodec_open2(codec_.get(), decoder, nullptr) == 0;
  }
  // Null: the end. Returns how many pictures came.
  std::size_t take(const AVPacket* packet) {
    std::size_t count = 0;
    if (!good_ || avcodec_send_packet(codec_.get(), packet) != 0) return 0;
    const Picture picture(av_frame_alloc());
    while (avcodec_receive_frame(codec_.get(), picture.get()) == 0)
      if (picture->decode_error_flags == 0) ++count;
    return count;
  }

 private:
  Codec codec_;
  bool good_ = false;
};

std::string tagText(std::uint32_t tag) {
  std::string text;
  for (int shift = 0; shift < 32; shift += 8) text += static_cast<char>(tag >> shift & 0xff);
  return text;
}

void playStream(AVFormatContext* file, const Film& film, Play how, Played* played) {
  const AVStream& stream = *file->streams[0];
  played->tag = tagText(stream.codecpar->codec_tag);
  played->width = stream.codecpar->width;
  played->height = stream.codecpar->height;
  played->rate = av_q2d(stream.r_frame_rate);
  played->seconds = static_cast<double>(file->duration) / AV_TIME_BASE;
  Decoder decoder(*stream.codecpar);
  const Packet packet(av_packet_alloc());
  while (av_read_frame(file, packet.get()) == 0) {
    if ((packet->flags & AV_PKT_FLAG_CORRUPT) != 0) {  // the file ends inside
      av_packet_unref(packet.get());
      continue;
    }
    const std::string wanted = film.stored(played->pictures);
    const bool key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
    if (static_cast<std::size_t>(packet->size) == wanted.size() &&
        std::memcmp(packet->data, wanted.data(), wanted.size()) == 0 &&
        key == film.isKey(played->pictures)) {
      ++played->pictures;
    } else if (played->wrong.empty()) {
      played->wrong = "picture " + std::to_string(played->pictures) + " of " +
                      std::to_string(packet->size) + " bytes instead of " +
                      std::to_string(wanted.size()) + (key ? ", key" : "");
    }
    if (how == Play::kDecode) played->decoded += decoder.take(packet.get());
    av_packet_unref(packet.get());
  }
  if (how == Play::kDecode) played->decoded += decoder.take(nullptr);
}

}  // namespace

Played play(const std::string& file, const Film& film, Play how) {
  Played played;
  const LibavComplaints complaints;
  AVFormatContext* context = nullptr;
  if (avformat_open_input(&context, file.c_str(), nullptr, nullptr) != 0) {
    played.wrong = "no file that can be opened";
    return played;
  }
  if (avformat_find_stream_info(context, nullptr) < 0 || context->nb_streams != 1) {
    played.wrong = "no stream";
  } else {
    playStream(context, film, how, &played);
  }
  avformat_close_input(&context);
  played.complaints = LibavComplaints::text();
  return played;
}
