/* starter: measures how long a server takes from exec() to the first connect() that succeeds.
 *
 *     starter [port] [core] [signal] [program] [arguments...]
 *
 * Prints milliseconds and ends the program with the signal. Tries to connect again and again without a pause:
 * a try costs some microseconds, on a core that the program does not use. The port must not be one that the
 * system gives to outgoing connections. Otherwise a try may become connected to itself. */

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

constexpr double longest_ms = 10000;

double now_ms() {
  timespec t = {};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

bool is_listening(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  int sock = socket(AF_INET, SOCK_STREAM, 0);
  bool connected = connect(sock, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  close(sock);
  return connected;
}

// Becomes the program, on `core` and without output. Takes the time just before exec().
[[noreturn]] void become(char** command, int core, double* begin_ms) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(static_cast<size_t>(core), &cores);
  sched_setaffinity(0, sizeof(cores), &cores);
  int null = open("/dev/null", O_WRONLY);
  dup2(null, 1);
  dup2(null, 2);
  close(null);
  *begin_ms = now_ms();
  execvp(command[0], command);
  _exit(127);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 1;
  const int port = atoi(argv[1]);
  void* shared = mmap(nullptr, sizeof(double), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED || is_listening(port)) return 1;
  auto* begin_ms = static_cast<double*>(shared);

  const double forked_ms = now_ms();
  pid_t child = fork();
  if (child < 0) return 1;
  if (child == 0) become(argv + 4, atoi(argv[2]), begin_ms);

  bool listening = false;
  while (!(listening = is_listening(port)) && now_ms() - forked_ms < longest_ms) {
    if (waitpid(child, nullptr, WNOHANG) != 0) return 1;
  }
  const double taken_ms = now_ms() - *begin_ms;
  kill(child, listening ? atoi(argv[3]) : SIGKILL);
  waitpid(child, nullptr, 0);
  if (!listening) return 1;
  printf("%.3f\n", taken_ms);
  return 0;
}
