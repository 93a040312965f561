// What boardctl says to the hardware, and what it hears.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "board/hardware/listener.h"

class Faults;
class NodeServer;
class Trace;
class World;

// Takes one line of text from each caller and answers "ok" or "error" and the reason, then what
// there is to show. See boardctl.1 for the commands.
class Control {
 public:
  // The board's physical side. Nothing of it owned; must outlive the object.
  struct Hardware {
    std::string model;
    std::string scene;
    World* world;
    Faults* faults;
    Trace* trace;
    const NodeServer* nodes;
  };

  explicit Control(Hardware hardware);
  ~Control();
  Control(const Control&) = delete;
  Control& operator=(const Control&) = delete;

  // Listens at `path`. Returns false and sets `*error` when that can't be done.
  bool start(const std::string& path, std::string* error);
  void stop();

  // Carries out one line. Returns the answer.
  std::string answer(const std::string& line);

 private:
  // Takes the words after the command's name. Returns what is to be shown; sets `*error` instead.
  using Words = std::vector<std::string>;
  using Command = std::string (Control::*)(const Words& words, std::string* error);

  std::string motion(const Words& words, std::string* error);
  std::string tv(const Words& words, std::string* error);
  std::string fail(const Words& words, std::string* error);
  std::string reads(const Words& words, std::string* error);
  std::string lie(const Words& words, std::string* error);
  std::string hang(const Words& words, std::string* error);
  std::string goOn(const Words& words, std::string* error);
  std::string heal(const Words& words, std::string* error);
  std::string trace(const Words& words, std::string* error);
  std::string status(const Words& words, std::string* error);

  void serveAll();

  const Hardware hardware_;
  Listener listener_;
  std::thread thread_;
};
