#include "platform/linux/stream_buffer_mapping.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>

#include "platform/linux/stream_buffer_layout.h"

namespace sb {
namespace {

std::atomic<Mapping*> all{nullptr};
struct sigaction former;  // what a SIGBUS did before

// Maps over what is there. The kernel's call itself: the handler of a signal may use no other, and
// what watches over memory must not take it for a write.
bool mapOver(void* base, std::size_t size, int protection, int flags, int fd, std::size_t at) {
#ifdef SYS_mmap2
  constexpr std::size_t kUnit = 4096;  // of the place in the file, whatever a page is
  const long result = syscall(SYS_mmap2, base, size, protection, flags | MAP_FIXED, fd, at / kUnit);
#else
  const long result = syscall(SYS_mmap, base, size, protection, flags | MAP_FIXED, fd, at);
#endif
  return result != -1;
}

}  // namespace

bool Mapping::covers(const void* address) const {
  const unsigned char* const base = base_;
  const auto* const byte = static_cast<const unsigned char*>(address);
  return base != nullptr && byte >= base && byte < base + size_.load(std::memory_order_relaxed);
}

// On the thread that has touched the page, which then goes on where it was.
void Mapping::onBusError(int signal, siginfo_t* about, void* /*context*/) {
  const int error = errno;
  const bool fault = about->si_code > 0;  // and not sent by a process
  for (Mapping* one = all.load(std::memory_order_acquire); fault && one != nullptr;
       one = one->next_) {
    if (!one->covers(about->si_addr)) continue;
    unsigned char* const base = one->base_;
    if (!mapOver(base, one->size_.load(std::memory_order_relaxed), PROT_READ | PROT_WRITE,
                 MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
      break;
    one->broken_ = true;
    reinterpret_cast<Head*>(base)->retired.store(1, std::memory_order_relaxed);
    errno = error;
    return;
  }
  // The instruction is repeated, and this time meets what was there before.
  sigaction(signal, &former, nullptr);
  if (!fault) raise(signal);
  errno = error;
}

void Mapping::watchBusErrors() {
  static const bool watched = [] {
    struct sigaction action {};
    action.sa_sigaction = onBusError;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    return sigaction(SIGBUS, &action, &former) == 0;
  }();
  (void)watched;
}

Mapping* Mapping::make(int fd, std::size_t size, int protection) {
  watchBusErrors();
  void* const base = mmap(nullptr, size, protection, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) return nullptr;
  Mapping* mapping = all.load(std::memory_order_acquire);
  while (mapping != nullptr && mapping->taken_.exchange(true)) mapping = mapping->next_;
  const bool isNew = mapping == nullptr;
  if (isNew) mapping = new Mapping;
  mapping->broken_ = false;
  mapping->size_.store(size, std::memory_order_relaxed);
  mapping->base_ = static_cast<unsigned char*>(base);
  if (!isNew) return mapping;
  mapping->next_ = all.load(std::memory_order_relaxed);
  while (!all.compare_exchange_weak(mapping->next_, mapping, std::memory_order_release)) {
  }
  return mapping;
}

void Mapping::giveBack(Mapping* mapping) {
  unsigned char* const base = mapping->base_;
  mapping->base_ = nullptr;
  munmap(base, mapping->size_.load(std::memory_order_relaxed));
  mapping->taken_ = false;
}

// Where both parts have the same protection it is one call. Where they have not, a user of the rest
// that comes in between meets what was there before: private memory, which it reads only.
bool Mapping::mend(int fd, std::size_t split, int protection, int protectionOfRest) {
  const std::size_t size = size_.load(std::memory_order_relaxed);
  broken_ = false;
  bool done = true;
  if (protection == protectionOfRest) {
    done = mapOver(base_, size, protection, MAP_SHARED, fd, 0);
  } else {
    done = mapOver(base_ + split, size - split, protectionOfRest, MAP_SHARED, fd, split) &&
           mapOver(base_, split, protection, MAP_SHARED, fd, 0);
  }
  if (!done) broken_ = true;
  return done;
}

}  // namespace sb
