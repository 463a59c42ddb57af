/* file_server: serves static files from a folder in slices, and prints their progress on the console.
 *
 *     file_server [port] [folder]
 *
 * It serves nothing outside the folder, however the path is spelled: the system resolves the path, links
 * included, and the file that it finds must be inside the folder. */

#include <sys/stat.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/text.h"
#include "http/http_connection.h"
#include "net/server.h"
#include "net/sockets.h"

namespace {

/* The folder's true path, without a slash at the end. */
std::string& root() {
  static std::string path;
  return path;
}

/* The true path of the file or folder that `path` names; "" when there is none. */
std::string true_path(const std::string& path) {
  char found[PATH_MAX];
  return realpath(path.c_str(), found) ? found : "";
}

/* `path` with each %XX replaced by the byte that it stands for (RFC 3986, section 2.1). %00 stays %00,
 * because no file name holds a zero byte. */
std::string decode(const std::string& path) {
  std::string out;
  for (size_t i = 0; i < path.size(); i++) {
    const bool is_escape = path[i] == '%' && i + 2 < path.size() &&
                           path.find_first_not_of("0123456789abcdefABCDEF", i + 1) > i + 2;
    const char byte =
        is_escape ? static_cast<char>(strtol(path.substr(i + 1, 2).c_str(), nullptr, 16)) : '\0';
    if (byte != '\0') {
      out += byte;
      i += 2;
    } else {
      out += path[i];
    }
  }
  return out;
}

struct file_connection : http_connection {
  std::string sending;  // the file that is being sent, for the console
  long total = 0;       // its size in bytes
  long sent = 0;        // bytes of the answer that have gone out

  void on_request() override {
    if (written) return;  // a refused upgrade, or bytes after the last request: no file for these
    // Every queued answer holds a file open. A client that asks again before it has read its answer could
    // take all descriptors, so it gets no other answer.
    if (response_parts.count > 0) return hang_up();
    if (method != "GET" && method != "HEAD") {
      write("HTTP/1.1 405 Method Not Allowed\r\nAllow: GET, HEAD\r\n", "");
      return;
    }
    std::string file = true_path(root() + decode(path));
    struct stat status = {};
    if (!file.empty() && stat(file.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
      file = true_path(file + "/index.html");
    const bool is_inside = file.compare(0, root().size() + 1, root() + "/") == 0;
    if (!is_inside || stat(file.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || !queue_file(file))
      write("HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\n", "There is no such file.\n");
  }

  /* Queues the answer with the file as its body. Returns false when the file cannot be opened. */
  bool queue_file(const std::string& file) {
    FILE* stream = fopen(file.c_str(), "rb");
    if (!stream) return false;
    struct stat status = {};
    fstat(fileno(stream), &status);  // of the file that was opened: the path may name another one by now
    sending = file.substr(root().size());
    total = status.st_size;
    sent = 0;
    write_file("HTTP/1.1 200 OK\r\n", stream, total);
    return true;
  }

  bool on_send(char* buf, int cap, int* len) override {
    const bool is_file = response_parts.count > 0 && response_parts.front()->file;
    const bool stay = http_connection::on_send(buf, cap, len);
    if (is_file && *len > 0) {
      sent += *len;
      printf("%d %s: %ld of %ld bytes\n", sock, sending.c_str(), sent, total);
    }
    return stay;
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 || (root() = true_path(argv[2])).empty()) {
    printf("USAGE: file_server [port] [folder]\n");
    return 1;
  }
  if (root() == "/") root().clear();
  sockets::raise_descriptor_limit();
  server<file_connection> http(base::parse_int(argv[1]));
  http.run();
  return 0;
}
