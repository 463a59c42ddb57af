/* fake_openssl: replaces OpenSSL's entry points as long as it lives, and notes every call with its arguments.
 *
 * There is one context, "ctx"; sessions are named s1, s2, ... in the order of their creation. A session
 * speaks plain text: it reads and writes the socket it is bound to, unless a test says otherwise. */
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "tls/openssl.h"

class fake_openssl {
 public:
  struct session {
    std::string name;
    int sock = -1;
  };
  using transfer = std::function<int(session&, char* buf, int len)>;

  std::vector<std::string> notes;
  bool gives_context = true;  // false: SSL_CTX_new returns null
  bool gives_session = true;  // false: SSL_new returns null
  int result = 1;             // of every call that returns a status; callers must ignore it
  transfer reads = [](session& s, char* buf, int len) {
    return static_cast<int>(::recv(s.sock, buf, static_cast<size_t>(len), 0));
  };
  transfer writes = [](session& s, char* buf, int len) {
    return static_cast<int>(::send(s.sock, buf, static_cast<size_t>(len), 0));
  };
  void* last_buffer = nullptr;  // of the last SSL_read or SSL_write

  fake_openssl() {
    current() = this;
    replace(openssl::OpenSSL_version_num, [] { return note("OpenSSL_version_num()"), 0x30000000UL; });
    replace(openssl::SSL_load_error_strings, [] { note("SSL_load_error_strings()"); });
    replace(openssl::SSL_library_init, [] { return status("SSL_library_init()"); });
    replace(openssl::OPENSSL_init_ssl, [](uint64_t options, const void* settings) {
      return status("OPENSSL_init_ssl(" + std::to_string(options) + ", " + name(settings) + ")");
    });
    replace(openssl::TLS_server_method,
            []() -> const void* { return note("TLS_server_method()"), &new_method; });
    replace(openssl::SSLv23_server_method,
            []() -> const void* { return note("SSLv23_server_method()"), &old_method; });
    replace(openssl::SSL_CTX_new, [](const void* method) -> void* {
      note("SSL_CTX_new(" + name(method) + ")");
      return current()->gives_context ? context() : nullptr;
    });
    replace(openssl::SSL_CTX_free, [](void* ctx) { note("SSL_CTX_free(" + name(ctx) + ")"); });
    replace(openssl::SSL_CTX_use_PrivateKey_file, [](void* ctx, const char* path, int type) {
      return status("SSL_CTX_use_PrivateKey_file(" + file_arguments(ctx, path, type));
    });
    replace(openssl::SSL_CTX_use_certificate_file, [](void* ctx, const char* path, int type) {
      return status("SSL_CTX_use_certificate_file(" + file_arguments(ctx, path, type));
    });
    replace(openssl::SSL_CTX_ctrl, [](void* ctx, int command, long number, void* pointer) -> long {
      return status("SSL_CTX_ctrl(" + name(ctx) + ", " + std::to_string(command) + ", " +
                    std::to_string(number) + ", " + name(pointer) + ")");
    });
    replace(openssl::SSL_new, [](void* ctx) -> void* {
      note("SSL_new(" + name(ctx) + ")");
      return current()->gives_session ? current()->make_session() : nullptr;
    });
    replace(openssl::SSL_set_fd, [](void* ssl, int sock) {
      static_cast<session*>(ssl)->sock = sock;
      return status("SSL_set_fd(" + session_name(ssl) + ", " + std::to_string(sock) + ")");
    });
    replace(openssl::SSL_accept, [](void* ssl) { return status("SSL_accept(" + session_name(ssl) + ")"); });
    replace(openssl::SSL_shutdown,
            [](void* ssl) { return status("SSL_shutdown(" + session_name(ssl) + ")"); });
    replace(openssl::SSL_free, [](void* ssl) { note("SSL_free(" + session_name(ssl) + ")"); });
    replace(openssl::SSL_read, [](void* ssl, void* buf, int len) {
      return move_bytes("SSL_read", current()->reads, ssl, buf, len);
    });
    replace(openssl::SSL_write, [](void* ssl, const void* buf, int len) {
      return move_bytes("SSL_write", current()->writes, ssl, const_cast<void*>(buf), len);
    });
  }
  fake_openssl(const fake_openssl&) = delete;
  fake_openssl& operator=(const fake_openssl&) = delete;
  ~fake_openssl() {
    while (!restores.empty()) {
      restores.back()();
      restores.pop_back();
    }
    openssl::_import.error = error_text;
    current() = nullptr;
  }

  /* The context that SSL_CTX_new gives. */
  static void* context() {
    static char object;
    return &object;
  }

  /* Makes the entry point `pointer` missing: a call of it throws `text`. */
  template <class F>
  void remove(F*& pointer, const std::string& text = "missing") {
    openssl::_import.error = text;
    replace(pointer, reinterpret_cast<F*>(&openssl::throw_import_error));
  }

  template <class F, class G>
  void replace(F*& pointer, G function) {
    restores.push_back([&pointer, saved = pointer] { pointer = saved; });
    pointer = function;
  }

  /* Adds to the notes of the current fake, if there is one. */
  static void note(const std::string& text) {
    if (current()) current()->notes.push_back(text);
  }

  /* The notes since the last call. */
  std::vector<std::string> take_notes() { return std::exchange(notes, {}); }

 private:
  static fake_openssl*& current() {
    static fake_openssl* fake = nullptr;
    return fake;
  }

  static int status(const std::string& call) {
    note(call);
    return current()->result;
  }

  static int move_bytes(const std::string& function, const transfer& move, void* ssl, void* buf, int len) {
    int n = move(*static_cast<session*>(ssl), static_cast<char*>(buf), len);
    note(function + "(" + session_name(ssl) + ", " + std::to_string(len) + ") -> " + std::to_string(n));
    current()->last_buffer = buf;
    return n;
  }

  static std::string name(const void* object) {
    if (!object) return "null";
    if (object == context()) return "ctx";
    if (object == &new_method) return "new method";
    if (object == &old_method) return "old method";
    return "unknown";
  }

  static std::string session_name(const void* ssl) {
    return ssl ? static_cast<const session*>(ssl)->name : "null";
  }

  static std::string file_arguments(void* ctx, const char* path, int type) {
    return name(ctx) + ", " + path + ", " + std::to_string(type) + ")";
  }

  session* make_session() {
    sessions.push_back({"s" + std::to_string(sessions.size() + 1)});
    return &sessions.back();
  }

  inline static const char new_method = 0;
  inline static const char old_method = 0;

  std::deque<session> sessions;
  std::string error_text = openssl::_import.error;
  std::vector<std::function<void()>> restores;
};
