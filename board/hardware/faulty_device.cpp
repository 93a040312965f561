#include "board/hardware/faulty_device.h"

#include <algorithm>
#include <array>

namespace {

// The time between two reads that give nothing: as often as pictures would come.
constexpr std::chrono::milliseconds kEmptyReadTime(33);

// Takes the code away with which a picture begins, of MPEG-4 or of JPEG.
void takeHead(std::vector<char>* data) {
  constexpr std::array<char, 4> kPictureStart = {0, 0, 1, '\xB6'};
  constexpr std::array<char, 2> kImageStart = {'\xFF', '\xD8'};
  const auto beginsWith = [data](const auto& code) {
    return data->size() >= code.size() && std::equal(code.begin(), code.end(), data->begin());
  };
  if (beginsWith(kPictureStart)) {
    data->erase(data->begin(), data->begin() + kPictureStart.size());
  } else if (beginsWith(kImageStart)) {
    data->erase(data->begin(), data->begin() + kImageStart.size());
  }
}

}  // namespace

int FaultyDevice::ioctl(unsigned request, std::vector<char>* argument) {
  faults_->waitWhileHung(node_);
  const Request* const known = findRequest(request);
  const int error = known != nullptr ? faults_->requestError(known->name) : 0;
  if (error != 0) return -error;
  const int result = device_->ioctl(request, argument);
  if (request == kMpg430GetImgheader && result >= 0)
    return faults_->headerLength().value_or(result);
  return result;
}

int FaultyDevice::read(std::size_t limit, std::vector<char>* data) {
  faults_->waitWhileHung(node_);
  if (const int error = faults_->readError(node_)) return -error;
  if (faults_->readFault(node_, ChunkFault::kEmpty)) {
    faults_->pause(kEmptyReadTime);
    return 0;
  }
  if (const auto most = faults_->readFault(node_, ChunkFault::kShort))
    limit = std::min(limit, static_cast<std::size_t>(std::max(*most, 1)));
  const int result = device_->read(limit, data);
  if (result <= 0) return result;
  if (const auto ms = faults_->readFault(node_, ChunkFault::kLate))
    faults_->pause(std::chrono::milliseconds(*ms));
  if (faults_->readFault(node_, ChunkFault::kTorn)) data->resize((data->size() + 1) / 2);
  if (faults_->readFault(node_, ChunkFault::kHeadless)) takeHead(data);
  // One that began while the chip was still at work comes to the reader that waits.
  faults_->waitWhileHung(node_);
  return static_cast<int>(data->size());
}
