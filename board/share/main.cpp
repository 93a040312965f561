// sharefs: mounts a share of a Samba server as a file system, for a kernel that can't do it itself.
//
//   sharefs FOLDER <SETTINGS
//
// SETTINGS are six lines: server, port, share, user, password, domain. They come by standard input
// so that they show nowhere. Stays in the foreground. Nothing is kept back: a write that returned
// is on the server, and one that fails says why. Ends, and unmounts FOLDER, by SIGTERM and by
// itself when the server does not answer; tells the reason on standard error.
#define FUSE_USE_VERSION 35
#include <fcntl.h>
#include <fuse3/fuse.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>

#include "board/share/share.h"

namespace {

constexpr double kRememberS = 1;  // how long the kernel believes what it knows of a file
constexpr mode_t kFileMode = 0640;
constexpr mode_t kFolderMode = 0750;

Share& share() { return *static_cast<Share*>(fuse_get_context()->private_data); }

// The end of every operation: its result, and the end of everything when the server is gone.
long answer(long result) {
  const long answered = share().answer(result);
  if (share().isLost()) fuse_exit(fuse_get_context()->fuse);
  return answered;
}

int status(long result) { return static_cast<int>(answer(result)); }

int handle(const fuse_file_info* file) { return static_cast<int>(file->fh); }

// A share tells no owner or mode that means something here.
void own(struct stat* about) {
  about->st_uid = getuid();
  about->st_gid = getgid();
  about->st_mode = S_ISDIR(about->st_mode) ? S_IFDIR | kFolderMode : S_IFREG | kFileMode;
  about->st_blocks = (about->st_size + 511) / 512;
}

void* begin(fuse_conn_info*, fuse_config* config) {
  config->attr_timeout = config->entry_timeout = kRememberS;
  config->negative_timeout = 0;
  config->hard_remove = 1;
  config->direct_io = 1;  // recordings would fill the memory
  return fuse_get_context()->private_data;
}

int getAttributes(const char* path, struct stat* about, fuse_file_info*) {
  const int result = status(smbc_stat(share().url(path).c_str(), about));
  if (result == 0) own(about);
  return result;
}

int readFolder(const char* path, void* list, fuse_fill_dir_t add, off_t, fuse_file_info*,
               fuse_readdir_flags) {
  const int folder = status(smbc_opendir(share().url(path).c_str()));
  if (folder < 0) return folder;
  while (const libsmb_file_info* const entry = smbc_readdirplus(static_cast<unsigned>(folder))) {
    constexpr int kDosFolder = 0x10;
    struct stat about {};
    about.st_mode = (entry->attrs & kDosFolder) != 0 ? S_IFDIR : S_IFREG;
    add(list, entry->name, &about, 0, fuse_fill_dir_flags{});
  }
  return status(smbc_closedir(folder));
}

// What libsmbclient knows of the flags; positions come with every write.
int known(int flags) { return flags & (O_ACCMODE | O_CREAT | O_EXCL | O_TRUNC); }

// Whoever starts a command closes its descriptors in the new process first. That must not wait for
// a server that hangs in a write, and need not: what is written is on the server.
int opened(int fd, fuse_file_info* file) {
  if (fd < 0) return fd;
  file->fh = static_cast<std::uint64_t>(fd);
  file->noflush = 1;
  return 0;
}

int create(const char* path, mode_t, fuse_file_info* file) {
  const int flags = known(file->flags) | O_CREAT;
  return opened(status(smbc_open(share().url(path).c_str(), flags, kFileMode)), file);
}

int open(const char* path, fuse_file_info* file) {
  const int flags = known(file->flags) & ~O_CREAT;
  return opened(status(smbc_open(share().url(path).c_str(), flags, 0)), file);
}

int read(const char*, char* data, std::size_t size, off_t place, fuse_file_info* file) {
  if (smbc_lseek(handle(file), place, SEEK_SET) < 0) return status(-1);
  return status(smbc_read(handle(file), data, size));
}

int write(const char*, const char* data, std::size_t size, off_t place, fuse_file_info* file) {
  if (smbc_lseek(handle(file), place, SEEK_SET) < 0) return status(-1);
  return status(smbc_write(handle(file), data, size));
}

int truncate(const char* path, off_t size, fuse_file_info* file) {
  if (file != nullptr) return status(smbc_ftruncate(handle(file), size));
  const int fd = status(smbc_open(share().url(path).c_str(), O_WRONLY, 0));
  if (fd < 0) return fd;
  const int result = status(smbc_ftruncate(fd, size));
  const int closed = status(smbc_close(fd));
  return result != 0 ? result : closed;
}

int release(const char*, fuse_file_info* file) { return status(smbc_close(handle(file))); }

int synchronize(const char*, int, fuse_file_info*) { return 0; }  // nothing is kept back

int makeFolder(const char* path, mode_t) {
  return status(smbc_mkdir(share().url(path).c_str(), kFolderMode));
}

int removeFolder(const char* path) { return status(smbc_rmdir(share().url(path).c_str())); }

int remove(const char* path) { return status(smbc_unlink(share().url(path).c_str())); }

int rename(const char* from, const char* to, unsigned flags) {
  if (flags != 0) return -EINVAL;
  return status(smbc_rename(share().url(from).c_str(), share().url(to).c_str()));
}

int setTimes(const char* path, const timespec times[2], fuse_file_info*) {
  timeval values[2] = {};
  for (int i = 0; i < 2; ++i) {
    const bool now = times == nullptr || times[i].tv_nsec == UTIME_NOW;
    values[i].tv_sec = now ? std::time(nullptr) : times[i].tv_sec;
  }
  return status(smbc_utimes(share().url(path).c_str(), values));
}

// Intended: modes and owners are not kept, and asking for them is no error, as with the kernel's.
int setMode(const char*, mode_t, fuse_file_info*) { return 0; }
int setOwner(const char*, uid_t, gid_t, fuse_file_info*) { return 0; }

int getSpace(const char*, struct statvfs* space) {
  std::string root = share().url("/");
  struct statvfs told {};
  const int result = status(smbc_statvfs(root.data(), &told));
  if (result != 0) return result;
  // It tells bytes of a sector, and sectors of a block where bytes of a block are expected.
  const unsigned long block = told.f_bsize * (told.f_frsize != 0 ? told.f_frsize : 1);
  *space = {};
  space->f_bsize = space->f_frsize = block;
  space->f_blocks = told.f_blocks;
  space->f_bfree = space->f_bavail = told.f_bfree;
  space->f_namemax = 255;
  return 0;
}

fuse_operations operations() {
  fuse_operations all = {};
  all.init = begin;
  all.getattr = getAttributes;
  all.readdir = readFolder;
  all.create = create;
  all.open = open;
  all.read = read;
  all.write = write;
  all.truncate = truncate;
  all.release = release;
  all.fsync = synchronize;
  all.mkdir = makeFolder;
  all.rmdir = removeFolder;
  all.unlink = remove;
  all.rename = rename;
  all.utimens = setTimes;
  all.chmod = setMode;
  all.chown = setOwner;
  all.statfs = getSpace;
  return all;
}

// Mounts and serves until the end is asked for or the server is gone. Returns the exit status.
int serve(Share& share, const char* folder) {
  char name[] = "sharefs";
  char option[] = "-o";
  char options[] = "nosuid,nodev,noexec,noatime,fsname=share,subtype=smb";
  char* arguments[] = {name, option, options};
  fuse_args all = FUSE_ARGS_INIT(3, arguments);
  const fuse_operations served = operations();
  fuse* const fs = fuse_new(&all, &served, sizeof served, &share);
  if (fs == nullptr || fuse_mount(fs, folder) != 0) return 1;
  fuse_set_signal_handlers(fuse_get_session(fs));
  fuse_loop(fs);
  fuse_unmount(fs);
  return share.isLost() ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  const rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);  // the memory holds a password
  ShareSettings settings;
  if (argc != 2 || !settings.read(std::cin)) {
    std::fputs("usage: sharefs FOLDER <SETTINGS (server, port, share, user, password, domain)\n",
               stderr);
    return 2;
  }
  Share share(std::move(settings));
  if (const int error = share.connect()) {
    std::fprintf(stderr, "the server refuses: %s\n", std::strerror(error));
    return 1;
  }
  // Without a farewell to the server, which may not answer any more.
  _exit(serve(share, argv[1]));
}
