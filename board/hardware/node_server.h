// The device nodes of the board: answers the drivers' calls by the chips.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "board/drivers/protocol.h"
#include "board/drivers/requests.h"
#include "board/hardware/device.h"
#include "board/hardware/listener.h"
#include "board/hardware/trace.h"

// Serves each opened node on a thread of its own, as long as the driver keeps it open.
class NodeServer {
 public:
  struct Chip {
    const char* path;  // of its node
    Node node;
    Device* device;  // not owned, must outlive the server
  };

  // `trace`: not owned, must outlive it.
  NodeServer(std::vector<Chip> chips, Trace* trace);
  ~NodeServer();
  NodeServer(const NodeServer&) = delete;
  NodeServer& operator=(const NodeServer&) = delete;

  // Listens at `path`. Returns false and sets `*error` when that can't be done.
  bool start(const std::string& path, std::string* error);
  // Hangs up and waits until the chips have given back every thread.
  void stop();

  // Sends SIGIO to the owners of this node's descriptors that want it. Any thread.
  void signalOwners(Node node);
  // One line for each opened node. Any thread.
  std::string describe() const;

 private:
  struct Connection;

  void acceptAll();
  void serve(Connection* connection);
  bool answerOpen(Connection* connection, const std::vector<char>& bytes);
  bool answer(Connection* connection, const Call& call, std::vector<char>* bytes);
  int control(const Chip& chip, unsigned number, std::vector<char>* bytes);
  void end(Connection* connection);
  void joinEnded();

  const std::vector<Chip> chips_;
  Trace* const trace_;
  Listener listener_;
  std::thread acceptor_;
  mutable std::mutex mutex_;
  std::list<std::unique_ptr<Connection>> connections_;
};
