// What the tests of the platform share: a file tree of their own, a reader of the system log, and
// child processes.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// Waits until `condition` holds, 20 s at the most. Returns whether it does.
bool eventually(const std::function<bool()>& condition);

// Returns what a command writes to standard output and error, and its exit status unless it is 0.
std::string outputOf(const std::string& command);

// Calls `action(caller, n)` for n below `times` on several threads that begin at the same instant.
void atOnce(int callers, int times, const std::function<void(int, int)>& action);

// A temporary folder that is the platform's root while the object lives.
class TempRoot {
 public:
  // `name`: of the folder, to make the root's path as long as a test wants it.
  explicit TempRoot(const std::string& name = "root");
  ~TempRoot();

  std::string path(const std::string& inside) const { return root_ + inside; }
  // Makes a program of the shell's `text`. Returns its path.
  std::string script(const std::string& text) const;

 private:
  std::string base_;
  std::string root_;
};

// Receives what the platform logs, as the system's logger would, in the present root.
class LogReader {
 public:
  enum When { kLogOpensAnew, kLogStaysOpen };
  explicit LogReader(const TempRoot& root, When when = kLogOpensAnew);
  ~LogReader();

  // Returns the lines that have come, without what is ahead of the text: "3 text" for level 3.
  std::vector<std::string> lines();
  // The same, as they came.
  std::vector<std::string> raw();
  // Waits until `line` has come, and forgets what came before it. Returns true iff it came.
  bool waitFor(const std::string& line);

 private:
  int fd_;
};

// A child process that runs a function, with its standard output and error kept.
class Child {
 public:
  // `body`: its result is the exit status; the child ends by exit(), static destructors included.
  // Call while the process has no other thread.
  explicit Child(const std::function<int()>& body);
  ~Child();

  pid_t pid() const { return pid_; }
  void signal(int number) const;
  // Waits until the child has written `text`. Returns true iff it has.
  bool waitForOutput(const std::string& text);
  // Waits for the child's end. Returns its exit status, or -1 and a signal's number.
  int wait();
  // Everything that it wrote, complete after wait().
  const std::string& output() const { return output_; }

 private:
  bool readMore(int timeoutMs);

  pid_t pid_ = -1;
  int fd_ = -1;
  std::string output_;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);

// Whether this is a user-mode emulation, where some calls reach the kernel in another form.
bool emulated();
