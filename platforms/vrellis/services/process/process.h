// Processes: is this one alive, and is it still the same one? For the services, the inspector and the tools.
//
// A process is named by its id, its start time and its PID namespace. An id alone is not enough, since the kernel gives
// it to another process later. Every answer can be "unknown": /proc may hide processes of other users, may belong to
// another PID namespace, or may not be mounted. Who gets "unknown" keeps what belongs to the process.
//
// The functions take no lock and no memory, so that the child of a fork may call them.
#ifndef VRELLIS_PROCESS_PROCESS_H
#define VRELLIS_PROCESS_PROCESS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace vrellis {

enum class Liveness { kUnknown, kAlive, kDead };

struct ProcessId {
  pid_t pid;
  std::uint64_t start;          // clock ticks since boot, as the first time namespace counts them; 0: not known
  std::uint64_t pid_namespace;  // inode; 0: not known
};

// What /proc/ID/stat says of a process or a thread.
struct ProcessStat {
  char comm[64];  // the command's name as it is: any bytes but 0
  char state;     // 'R', 'S', 'D', 'T' stopped, 't' stopped by a tracer, 'Z' zombie, 'X' dead
  pid_t parent;
  std::uint32_t threads;
  std::uint64_t start;  // as in ProcessId; 0 when this process's time namespace cannot be told
};

// Takes the text of a stat file apart. The name in parentheses may itself hold blanks, parentheses and newlines.
// Out: *stat, whose `start` is as the text has it. Returns: false when the text is no such line.
bool parse_process_stat(const char *text, ProcessStat *stat);

// Reads /proc/<id>/stat of a process or a thread. Returns: false when it cannot be read.
bool read_process_stat(pid_t id, ProcessStat *stat);

// Reads the first bytes of a small file as text. Returns: false when it cannot be read.
bool read_small_file(const char *path, char *text, std::size_t room);

// The inode of this process's PID namespace; 0 when it cannot be told.
std::uint64_t own_pid_namespace();

// This process; `start` is 0 when /proc cannot be read.
ProcessId own_process();

// Whether the process lives. A zombie is dead. A process whose first thread has ended lives as long as another one
// runs.
Liveness liveness_of(const ProcessId &process);

// Whether the thread `tid` of this PID namespace lives. A thread id comes back sooner than a pair of id and start time.
Liveness liveness_of_thread(pid_t tid);

enum class Mapped { kUnknown, kYes, kNo };

// Whether the process `pid` of this PID namespace has shared memory mapped at `address`. A process that has run another
// program since it mapped its windows has not. Returns: unknown when the process may not be looked into.
Mapped maps_shared_memory(pid_t pid, std::uint64_t address);

// Whether that memory is the same file that this process has mapped at `own`. `id` may be a thread's.
Mapped maps_same_memory(pid_t id, std::uint64_t address, std::uint64_t own);

// Writes "process 17 (name), which is stopped" for a message; bytes of the name that cannot be printed become '?'.
inline constexpr std::size_t kProcessTextBytes = 128;
void describe_process(pid_t pid, char (&text)[kProcessTextBytes]);

}  // namespace vrellis

#endif
