#include "tests/fakes/fake_recordings.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/storage.h"
#include "tests/fakes/fake_platform.h"

namespace {

int fail(int error) {
  errno = error;
  return -1;
}

bool digits(const std::string& text, std::size_t count) {
  return text.size() >= count && std::all_of(text.begin(), text.begin() + static_cast<long>(count),
                                             [](char c) { return c >= '0' && c <= '9'; });
}

std::string parent(const std::string& path) { return path.substr(0, path.rfind('/')); }
std::string leaf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

void FakeRecordings::put(const std::string& path, std::int64_t size) {
  std::lock_guard<std::mutex> guard(lock_);
  files_[path].size = size;
  folders_.insert(parent(path));
}

void FakeRecordings::removeTree(const std::string& path) {
  std::lock_guard<std::mutex> guard(lock_);
  const std::string below = path + "/";
  for (auto file = files_.begin(); file != files_.end();)
    file = file->first == path || file->first.compare(0, below.size(), below) == 0
               ? files_.erase(file)
               : std::next(file);
  folders_.erase(path);
}

bool FakeRecordings::exists(const std::string& path) const {
  std::lock_guard<std::mutex> guard(lock_);
  return files_.count(path) != 0;
}

FakeRecording FakeRecordings::at(const std::string& path) const {
  std::lock_guard<std::mutex> guard(lock_);
  const auto found = files_.find(path);
  return found == files_.end() ? FakeRecording{} : found->second;
}

std::vector<std::string> FakeRecordings::paths() const {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<std::string> result;
  for (const auto& file : files_) result.push_back(file.first);
  return result;
}

std::int64_t FakeRecordings::usedLocked() const {
  std::int64_t bytes = 0;
  for (const auto& file : files_) bytes += file.second.size;
  return bytes;
}

std::int64_t FakeRecordings::used() const {
  std::lock_guard<std::mutex> guard(lock_);
  return usedLocked();
}

int FakeRecordings::openCount() const {
  std::lock_guard<std::mutex> guard(lock_);
  return static_cast<int>(std::count_if(files_.begin(), files_.end(),
                                        [](const auto& file) { return file.second.open; }));
}

// That the handle was created shows by a pointer that is never followed.
int FakeRecordings::create(AVI_HANDLE* handle) {
  handle->file = reinterpret_cast<AviFile*>(handle);
  ++handles_;
  return 0;
}

int FakeRecordings::release(AVI_HANDLE* handle) {
  if (handle->open) close(handle);
  if (handle->file != nullptr) --handles_;
  handle->file = nullptr;
  return 0;
}

std::string FakeRecordings::freeName(const std::string& name) const {
  std::string free = name;
  const std::size_t dot = name.rfind('.');
  for (int i = 1; files_.count(free) != 0; ++i)
    free = name.substr(0, dot) + "-" + std::to_string(i) + name.substr(dot);
  return free;
}

int FakeRecordings::open(AVI_HANDLE* handle, const char* name) {
  std::lock_guard<std::mutex> guard(lock_);
  if (handle->open) return fail(EBUSY);
  if (std::strncmp(name, "/smb/", 5) == 0 && FakePlatform::the().smbState != 1) return fail(ENODEV);
  if (folders_.count(parent(name)) == 0) return fail(ENOENT);
  if (capacity_ >= 0 && usedLocked() >= capacity_) return fail(ENOSPC);
  const std::string free = freeName(name);
  std::snprintf(handle->name, sizeof handle->name, "%s", free.c_str());
  FakeRecording& file = files_[free];
  file.header.assign(handle->header, sizeof handle->header);
  file.firstRate = handle->rate;
  file.open = true;
  handle->open = true;
  handle->size = 0;
  return 0;
}

int FakeRecordings::write(AVI_HANDLE* handle, const char* data, long length) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!handle->open) return fail(EBADF);
  FakeRecording& file = files_[handle->name];
  const char first = file.types.empty() ? handle->type : file.types[0];
  if ((first == 'J') != (handle->type == 'J')) return fail(EINVAL);
  if (capacity_ >= 0 && usedLocked() + length * scale_ > capacity_) return fail(ENOSPC);
  if (keepData_) {
    file.types += handle->type;
    file.data.append(data, static_cast<std::size_t>(length));
  }
  file.size += length * scale_;
  handle->size = file.size;
  return 0;
}

int FakeRecordings::close(AVI_HANDLE* handle) {
  std::lock_guard<std::mutex> guard(lock_);
  if (!handle->open) return 0;
  handle->open = false;
  const auto found = files_.find(handle->name);
  if (found == files_.end()) return 0;
  found->second.open = false;
  found->second.rate = handle->rate;
  return 0;
}

int FakeRecordings::remove(const char* path) {
  std::lock_guard<std::mutex> guard(lock_);
  return files_.erase(path) != 0 ? 0 : fail(ENOENT);
}

int FakeRecordings::makeFolder(const char* path) {
  std::lock_guard<std::mutex> guard(lock_);
  if (std::strncmp(path, "/smb/", 5) == 0 && FakePlatform::the().smbState != 1) return fail(ENODEV);
  folders_.insert(path);
  return 0;
}

bool FakeRecordings::isFolder(const std::string& path) const {
  std::lock_guard<std::mutex> guard(lock_);
  return folders_.count(path) != 0;
}

int FakeRecordings::oldest(const std::string& folder, std::string* path) const {
  std::lock_guard<std::mutex> guard(lock_);
  constexpr std::size_t kDay = 8;
  constexpr std::size_t kTime = 6;
  for (const std::string& day : folders_)
    if (parent(day) == folder && leaf(day).size() == kDay && digits(leaf(day), kDay)) {
      *path = day;
      return 0;
    }
  for (const auto& file : files_)
    if (parent(file.first) == folder && digits(leaf(file.first), kTime)) {
      // By name, which sorts "120000.avi" behind "120000-1.avi": the bare one is the older.
      const std::string bare = folder + "/" + leaf(file.first).substr(0, kTime) +
                               file.first.substr(file.first.rfind('.'));
      *path = files_.count(bare) != 0 ? bare : file.first;
      return 0;
    }
  return fail(ENOENT);
}

namespace {
FakePlatform& fake() { return FakePlatform::the(); }
}  // namespace

int aviCreate(AVI_HANDLE* handle) {
  FakeScope scope;
  fake().record("aviCreate()");
  return fake().failing("aviCreate") ? -1 : fake().recordings.create(handle);
}

int aviRelease(AVI_HANDLE* handle) {
  FakeScope scope;
  fake().record("aviRelease()");
  const bool failing = fake().failing("aviRelease");
  fake().recordings.release(handle);
  return failing ? -1 : 0;
}

int aviOpen(AVI_HANDLE* handle, const char* name) {
  FakeScope scope;
  fake().record("aviOpen(" + std::string(name) + ")");
  if (fake().failing("aviOpen")) return -1;
  return handle->file == nullptr ? fail(EINVAL) : fake().recordings.open(handle, name);
}

int aviWrite(AVI_HANDLE* handle, const char* data, long length) {
  FakeScope scope;
  return fake().failing("aviWrite") ? -1 : fake().recordings.write(handle, data, length);
}

// The file is closed whatever it says, as on the real platform.
int aviClose(AVI_HANDLE* handle) {
  FakeScope scope;
  fake().record("aviClose(" + std::string(handle->name) + "," + std::to_string(handle->rate) + ")");
  fake().recordings.close(handle);
  return fake().failing("aviClose") ? -1 : 0;
}

int rawOpen(AVI_HANDLE* handle, const char* name) {
  FakeScope scope;
  fake().record("rawOpen(" + std::string(name) + ")");
  return fake().failing("rawOpen") ? -1 : fake().recordings.open(handle, name);
}

int rawWrite(AVI_HANDLE* handle, const char* data, long length) {
  FakeScope scope;
  return fake().failing("rawWrite") ? -1 : fake().recordings.write(handle, data, length);
}

int rawClose(AVI_HANDLE* handle) {
  FakeScope scope;
  fake().record("rawClose(" + std::string(handle->name) + "," + std::to_string(handle->rate) + ")");
  fake().recordings.close(handle);
  return fake().failing("rawClose") ? -1 : 0;
}

int get_oldest_name(const char* folder, char* name, int size) {
  FakeScope scope;
  std::string path;
  if (fake().failing("get_oldest_name") || fake().recordings.oldest(folder, &path) != 0) return -1;
  if (static_cast<int>(path.size()) >= size) return fail(ENAMETOOLONG);
  std::memcpy(name, path.c_str(), path.size() + 1);
  return 0;
}

int get_folder(const char* path, char* folder, int size) {
  const char* const slash = std::strrchr(path, '/');
  if (fake().failing("get_folder") || slash == nullptr || slash == path) return -1;
  const long length = slash - path;
  if (length >= size) return -1;
  std::memcpy(folder, path, static_cast<std::size_t>(length));
  folder[length] = '\0';
  return 0;
}

bool test_dir(const char* path) {
  FakeScope scope;
  return !fake().failing("test_dir") && fake().recordings.isFolder(path);
}

int mkdir2(const char* path) {
  FakeScope scope;
  fake().record("mkdir2(" + std::string(path) + ")");
  return fake().failing("mkdir2") ? -1 : fake().recordings.makeFolder(path);
}
