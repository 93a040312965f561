#include "board/hardware/node_server.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

// More bytes than any call has; a driver that sends more does not speak this protocol.
constexpr std::size_t kMostBytes = 65536;

bool receiveAll(int fd, void* buffer, std::size_t size) {
  for (char* to = static_cast<char*>(buffer); size > 0;) {
    const ssize_t come = recv(fd, to, size, MSG_WAITALL);
    if (come < 0 && errno == EINTR) continue;
    if (come <= 0) return false;
    to += come;
    size -= static_cast<std::size_t>(come);
  }
  return true;
}

bool receiveCall(int fd, Call* call, std::vector<char>* bytes) {
  if (!receiveAll(fd, call, sizeof *call) || call->size > kMostBytes) return false;
  bytes->resize(call->size);
  return receiveAll(fd, bytes->data(), bytes->size());
}

bool hasGone(int fd) {
  pollfd peer{fd, 0, 0};
  return poll(&peer, 1, 0) != 0;
}

bool sendReply(int fd, int result, const std::vector<char>& bytes) {
  Reply reply{result, static_cast<std::uint32_t>(bytes.size())};
  iovec parts[] = {{&reply, sizeof reply}, {const_cast<char*>(bytes.data()), bytes.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  for (std::size_t left = sizeof reply + bytes.size(); left > 0;) {
    const ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return false;
    left -= static_cast<std::size_t>(sent);
    auto gone = static_cast<std::size_t>(sent);
    for (iovec& part : parts) {
      const std::size_t ofPart = gone < part.iov_len ? gone : part.iov_len;
      part.iov_base = static_cast<char*>(part.iov_base) + ofPart;
      part.iov_len -= ofPart;
      gone -= ofPart;
    }
  }
  return true;
}

}  // namespace

struct NodeServer::Connection {
  int fd = -1;
  const Chip* chip = nullptr;  // guarded by the server's lock, as its end is
  std::atomic<int> owner{0};
  std::atomic<bool> ended{false};
  std::thread thread;
};

NodeServer::NodeServer(std::vector<Chip> chips, Trace* trace)
    : chips_(std::move(chips)), trace_(trace) {}

NodeServer::~NodeServer() { stop(); }

bool NodeServer::start(const std::string& path, std::string* error) {
  if (!listener_.open(path, error)) return false;
  acceptor_ = std::thread([this] { acceptAll(); });
  return true;
}

void NodeServer::stop() {
  listener_.stop();
  if (acceptor_.joinable()) acceptor_.join();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& connection : connections_) shutdown(connection->fd, SHUT_RDWR);
  }
  for (const auto& connection : connections_) {
    connection->thread.join();
    close(connection->fd);
  }
  connections_.clear();
}

void NodeServer::signalOwners(Node node) {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& connection : connections_) {
    const int owner = connection->owner;
    const bool isMeant = connection->chip != nullptr && connection->chip->node == node;
    if (!isMeant || connection->ended || owner == 0) continue;
    if (kill(owner, SIGIO) == 0) trace_->add("SIGIO");
  }
}

std::string NodeServer::describe() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::string text;
  for (const auto& connection : connections_) {
    if (connection->chip == nullptr || connection->ended) continue;
    text += std::string("open ") + connection->chip->path;
    if (connection->owner != 0) text += ", SIGIO to " + std::to_string(connection->owner);
    if (const PictureCount* const count = connection->chip->device->count())
      text += ", " + std::to_string(count->given) + " pictures, " + std::to_string(count->missed) +
              " missed";
    text += '\n';
  }
  return text;
}

void NodeServer::acceptAll() {
  for (int fd = -1; (fd = listener_.accept()) >= 0;) {
    joinEnded();
    auto connection = std::make_unique<Connection>();
    connection->fd = fd;
    const std::lock_guard<std::mutex> lock(mutex_);
    connections_.push_back(std::move(connection));
    Connection* const added = connections_.back().get();
    added->thread = std::thread([this, added] { serve(added); });
  }
}

void NodeServer::joinEnded() {
  std::list<std::unique_ptr<Connection>> ended;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto at = connections_.begin(); at != connections_.end();) {
      const auto here = at++;
      if ((*here)->ended) ended.splice(ended.end(), connections_, here);
    }
  }
  for (const auto& connection : ended) {
    connection->thread.join();
    close(connection->fd);
  }
}

void NodeServer::serve(Connection* connection) {
  Call call{};
  std::vector<char> bytes;
  bool going = receiveCall(connection->fd, &call, &bytes) &&
               call.kind == static_cast<std::uint32_t>(CallKind::kOpen) &&
               answerOpen(connection, bytes);
  // What a process asked for before it was killed must not reach the chip behind its successor's
  // calls.
  while (going) {
    going = receiveCall(connection->fd, &call, &bytes) && !hasGone(connection->fd) &&
            answer(connection, call, &bytes);
  }
  end(connection);
}

void NodeServer::end(Connection* connection) {
  const Chip* const chip = connection->chip;
  if (chip != nullptr) trace_->add(std::string("close ") + chip->path);
  // The descriptor is closed when the thread is joined; until then the driver must see the end.
  shutdown(connection->fd, SHUT_RDWR);
  const std::lock_guard<std::mutex> lock(mutex_);
  connection->ended = true;
  for (const auto& other : connections_)
    if (other->chip == chip && !other->ended) return;
  if (chip != nullptr) chip->device->closed();
}

bool NodeServer::answerOpen(Connection* connection, const std::vector<char>& bytes) {
  const std::string path(bytes.begin(), bytes.end());
  const Chip* found = nullptr;
  for (const Chip& chip : chips_)
    if (path == chip.path) found = &chip;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    connection->chip = found;
  }
  trace_->add("open " + path + " -> " + (found != nullptr ? "0" : errorName(ENODEV)));
  return sendReply(connection->fd, found != nullptr ? 0 : -ENODEV, {}) && found != nullptr;
}

bool NodeServer::answer(Connection* connection, const Call& call, std::vector<char>* bytes) {
  const Chip& chip = *connection->chip;
  switch (static_cast<CallKind>(call.kind)) {
    case CallKind::kRead: {
      bytes->clear();
      const int result = chip.device->read(call.word, bytes);
      if (result <= 0) bytes->clear();
      return sendReply(connection->fd, result, *bytes);
    }
    case CallKind::kIoctl: {
      const int result = control(chip, call.word, bytes);
      return sendReply(connection->fd, result, *bytes);
    }
    case CallKind::kOwner: {
      const int owner = static_cast<int>(call.word);
      // -1 would be everybody.
      connection->owner = owner == -1 ? 0 : owner;
      trace_->add(owner == 0 ? "owner none" : "owner set");
      return true;
    }
    case CallKind::kOpen:
      break;
  }
  return false;
}

int NodeServer::control(const Chip& chip, unsigned number, std::vector<char>* bytes) {
  const Request* const request = findRequest(number);
  int result = -EINVAL;
  std::vector<char> before;
  if (request != nullptr && request->node == chip.node) {
    const std::size_t size = argumentSize(request->argument);
    if (size != 0) bytes->resize(size);
    before = *bytes;
    result = chip.device->ioctl(number, bytes);
  }
  if (trace_->isOpen()) trace_->add(describeRequest(request, number, before, result, *bytes));
  if (result < 0 || request == nullptr || !argumentComesBack(request->argument)) bytes->clear();
  return result;
}
