// The three kinds of queued output: how on_send() drains them, and who frees what.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>

#include "net/sockets.h"
#include "tests/http/delivery.h"
#include "tests/net/child.h"
#include "tests/support/console.h"
#include "tests/support/faults.h"

namespace {

using part = http_connection::response_part;
using slices = std::vector<std::string>;

// A job that counts the deletions of its kind.
struct counted_job : http_connection::job {
  explicit counted_job(int& deleted) : deleted_(deleted) {}
  ~counted_job() override { deleted_++; }

 private:
  int& deleted_;
};

class http_response_parts : public testing::Test {
 protected:
  ~http_response_parts() override { faults::clear(); }

  http_connection& c() { return *connection_; }
  void destroy_connection() { connection_.reset(); }

  part& queue() {
    auto* p = new part;  // deleted by the connection
    c().response_parts.push(p);
    return *p;
  }

  void queue_data(const std::string& data) { queue().data = data; }

  // A part that streams a fresh file with these bytes from its start.
  part& queue_file(const std::string& bytes, double remaining = -1.0) {
    FILE* file = tmpfile();
    fwrite(bytes.data(), 1, bytes.size(), file);
    rewind(file);
    part& p = queue();
    p.file = file;
    p.remaining = remaining;
    return p;
  }

  counted_job& queue_job(int32_t timeout = 10) {
    auto* job = new counted_job(jobs_deleted);  // deleted by the part
    part& p = queue();
    p.thread = job;
    p.timeout = timeout;
    return *job;
  }

  // What each on_send() gives until the queue is empty; no more than fifty.
  slices drain(int cap) {
    slices all;
    for (int i = 0; i < 50 && c().response_parts.count > 0; i++) {
      const sending one = send_once(c(), cap);
      EXPECT_TRUE(one.stays) << "parts never close the connection";
      all.push_back(one.bytes);
    }
    return all;
  }

  int jobs_deleted = 0;
  console console_;

 private:
  std::unique_ptr<http_connection> connection_ = std::make_unique<http_connection>();
};

bool is_open(int descriptor) {
  return fcntl(descriptor, F_GETFD) != -1;
}

}  // namespace

TEST_F(http_response_parts, go_out_one_at_a_time_in_order_even_on_a_closing_connection) {
  c().keep_alive = false;
  c().written = true;
  queue_data("one");
  queue_data(std::string("t\0o", 3));
  queue_data("");
  queue_data("three");
  EXPECT_EQ(drain(megabyte), (slices{"one", std::string("t\0o", 3), "", "three"}));
  EXPECT_FALSE(send_once(c()).stays);
}

TEST_F(http_response_parts, of_every_kind_keep_a_closing_connection_open_until_the_last_has_gone) {
  c().keep_alive = false;
  c().written = true;
  queue_file("0123456", 4);
  queue_file("", 0);
  counted_job& job = queue_job();
  for (const char* expected : {"0123", "", "", "", ""}) {
    const sending one = send_once(c(), 4);
    EXPECT_TRUE(one.stays);
    EXPECT_EQ(one.bytes, expected);
  }
  job.done = true;
  job.result = "";
  queue_data("abcde");
  EXPECT_EQ(drain(4), (slices{"0\r\n\r", "\n0\r\n", "\r\n", "abcd", "e"}));
  EXPECT_FALSE(send_once(c()).stays);
}

TEST_F(http_response_parts, of_bytes_longer_than_the_buffer_go_out_in_slices) {
  queue_data("0123456789");
  queue_data("ab");
  EXPECT_EQ(drain(4), (slices{"0123", "4567", "89", "ab"}));
}

// When less than a full buffer remains of the limit, a slice does not reduce the rest. So slices of this
// length follow until the file ends.
TEST_F(http_response_parts, from_a_file_go_out_in_slices_until_a_short_read) {
  const struct {
    std::string bytes;
    double remaining;
    slices expected;  // at a capacity of 4
  } cases[] = {
      {"0123456789", -1, {"0123", "4567", "89"}},
      {"01234567", -1, {"0123", "4567", ""}},
      {"", -1, {""}},
      {"0123456789", -0.5, {"0123", "4567", "89"}},
      {"0123456789", 0, {""}},
      {"0123456789", 0.5, {""}},
      {"0123456789", 4, {"0123", ""}},
      {"0123456789abcdefghij", 8, {"0123", "4567", ""}},
      {"012", 3, {"012", ""}},
      {"01234", 3, {"012", "34"}},
      {"01234", 2.75, {"01", "23", "4"}},
      {"0123456789", 6, {"0123", "45", "67", "89", ""}},
      {"0123456789a", 6, {"0123", "45", "67", "89", "a"}},
      {"01234", 100, {"0123", "4"}},
      {"01", 4, {"01"}},
  };
  for (const auto& t : cases) {
    queue_file(t.bytes, t.remaining);
    EXPECT_EQ(drain(4), t.expected) << t.bytes << " with " << t.remaining << " remaining";
  }
}

TEST_F(http_response_parts, from_a_file_with_nothing_left_set_the_length_to_0) {
  queue_file("0123", 0);
  char buffer[4];
  int len = 99;
  EXPECT_TRUE(c().on_send(buffer, 4, &len));
  EXPECT_EQ(len, 0);
  EXPECT_EQ(c().response_parts.count, 0);
}

TEST_F(http_response_parts, from_a_file_of_announced_length_are_exactly_so_many_bytes) {
  const struct {
    std::string bytes;
    int64_t announced;
    slices expected;  // at a capacity of 4
  } cases[] = {
      {"0123456789", 10, {"0123", "4567", "89"}},
      {"0123456789", 9, {"0123", "4567", "8"}},
      {"0123456789", 8, {"0123", "4567"}},
      {"0123456789", 6, {"0123", "45"}},
      {"0123456789", 1, {"0"}},
      {"0123", 4, {"0123"}},
  };
  for (const auto& t : cases) {
    queue_file(t.bytes, 3).announced = t.announced;  // only this counts, and not the 3
    EXPECT_EQ(drain(4), t.expected) << t.bytes << " with " << t.announced << " announced";
  }
  EXPECT_EQ(console_.text(), "");
}

TEST_F(http_response_parts, from_a_file_shorter_than_announced_end_the_connection_and_the_queue) {
  c().reset();
  queue_file("01234").announced = 7;
  const int descriptor = fileno(queue_file("next").file);
  EXPECT_EQ(send_once(c(), 4).bytes, "0123");
  const sending last = send_once(c(), 4);
  EXPECT_EQ(last.bytes, "4");
  EXPECT_FALSE(last.stays);
  EXPECT_EQ(console_.text(), "Warning! A file has ended 2 bytes before its announced length.\n");
  EXPECT_EQ(c().response_parts.count, 0);
  EXPECT_FALSE(is_open(descriptor));
  const sending next = send_once(c(), 4);
  EXPECT_EQ(next.bytes, "");
  EXPECT_FALSE(next.stays) << "it closes and does not wait for another response";
}

TEST_F(http_response_parts, from_a_file_reduce_the_limit_only_by_whole_buffers) {
  const part& p = queue_file("0123456789", 6);
  send_once(c(), 4);
  EXPECT_EQ(p.remaining, 2.0);
  send_once(c(), 4);
  EXPECT_EQ(p.remaining, 2.0);
  const part& unlimited = queue_file("x");
  EXPECT_EQ(unlimited.remaining, -1.0);
}

TEST_F(http_response_parts, from_a_file_start_at_its_current_position) {
  fseek(queue_file("0123456789").file, 7, SEEK_SET);
  EXPECT_EQ(drain(megabyte), slices{"789"});
}

// The slice has the full length, so only the next read finds the end. That read gives nothing to send.
TEST_F(http_response_parts, from_a_file_that_end_with_an_empty_slice_mark_the_socket_ready) {
  const int number = 700;  // nothing is open under it
  sockets::add(number);
  c().sock = number;
  queue_file("0123");
  EXPECT_EQ(send_once(c(), 4).bytes, "0123");
  EXPECT_FALSE(sockets::has(sockets::ready(), number)) << "the server does that for bytes that it sends";
  EXPECT_EQ(send_once(c(), 4).bytes, "");
  EXPECT_TRUE(sockets::has(sockets::ready(), number));
  for (fd_set* set : {sockets::all(), sockets::ready()}) FD_CLR(number, set);
}

TEST_F(http_response_parts, from_a_file_that_cannot_be_read_are_empty) {
  part& p = queue();
  p.file = fopen("/dev/null", "w");
  queue_data("next");
  EXPECT_EQ(drain(4), (slices{"", "next"}));
}

TEST_F(http_response_parts, file_is_closed_when_its_last_byte_is_out) {
  const int descriptor = fileno(queue_file("012345").file);
  send_once(c(), 4);
  EXPECT_TRUE(is_open(descriptor));
  send_once(c(), 4);
  EXPECT_FALSE(is_open(descriptor));
}

TEST_F(http_response_parts, file_with_a_limit_is_closed_when_the_limit_is_reached) {
  const int descriptor = fileno(queue_file("0123456789", 4).file);
  send_once(c(), 4);
  EXPECT_TRUE(is_open(descriptor));
  send_once(c(), 4);
  EXPECT_FALSE(is_open(descriptor));
}

TEST_F(http_response_parts, file_goes_before_job_and_job_before_bytes) {
  part& both = queue_file("file");
  both.thread = new counted_job(jobs_deleted);
  both.data = "bytes";
  counted_job& job = queue_job();
  job.done = true;
  job.result = "job";
  c().response_parts.tail->value->data = "bytes";
  EXPECT_EQ(drain(megabyte), (slices{"file", "3\r\njob\r\n0\r\n\r\n"}));
  EXPECT_EQ(jobs_deleted, 2);
}

TEST_F(http_response_parts, job_is_polled_until_it_is_done) {
  const int32_t last_active = c().last_active;
  faults::clock_offset() = 100;
  counted_job& job = queue_job(33);
  job.result = "not yet";
  for (int i = 0; i < 3; i++) {
    const sending nothing = send_once(c());
    EXPECT_TRUE(nothing.stays);
    EXPECT_EQ(nothing.bytes, "");
  }
  EXPECT_EQ(c().response_parts.count, 1);
  EXPECT_EQ(c().timeout, 10);
  EXPECT_EQ(c().last_active, last_active);
  job.result = "hello";
  job.done = true;
  EXPECT_EQ(drain(megabyte), slices{"5\r\nhello\r\n0\r\n\r\n"});
}

TEST_F(http_response_parts, jobs_result_is_one_chunk_and_the_last_chunk) {
  const struct {
    var result;
    std::string expected;
  } cases[] = {
      {"", "0\r\n\r\n0\r\n\r\n"},
      {std::string("a\0b", 3), std::string("3\r\na\0b\r\n0\r\n\r\n", 13)},
      {std::string(2748, 'x'), "ABC\r\n" + std::string(2748, 'x') + "\r\n0\r\n\r\n"},
      {12.0, "2\r\n12\r\n0\r\n\r\n"},
      {true, "4\r\ntrue\r\n0\r\n\r\n"},
      {var(), "4\r\nnull\r\n0\r\n\r\n"},
  };
  for (const auto& t : cases) {
    counted_job& job = queue_job();
    job.result = t.result;
    job.done = true;
    EXPECT_EQ(drain(megabyte), slices{t.expected});
  }
  EXPECT_EQ(jobs_deleted, 6);
}

TEST_F(http_response_parts, jobs_result_sets_the_idle_time_out_and_the_last_activity) {
  faults::clock_offset() = 5000;
  queue_job(33).done = true;
  const time_t before = time(nullptr);
  send_once(c());
  EXPECT_GE(c().last_active, before);
  EXPECT_LE(c().last_active, time(nullptr));
  EXPECT_EQ(c().timeout, 33);
}

// With 0 the connection ends soon, with less than 0 it never times out.
TEST_F(http_response_parts, jobs_result_sets_any_idle_time_out) {
  for (int32_t timeout : {0, -1, INT32_MAX}) {
    queue_job(timeout).done = true;
    send_once(c());
    EXPECT_EQ(c().timeout, timeout);
  }
}

TEST_F(http_response_parts, other_kinds_leave_the_idle_time_out_and_the_last_activity_alone) {
  const int32_t last_active = c().last_active;
  faults::clock_offset() = 5000;
  queue_data("x");
  queue_file("y").timeout = 44;
  drain(megabyte);
  EXPECT_EQ(c().last_active, last_active);
  EXPECT_EQ(c().timeout, 10);
}

// "FFFF2", the text, and nine bytes for the line ends and the last chunk fill the buffer exactly.
TEST_F(http_response_parts, jobs_result_beyond_the_buffer_is_dropped_with_a_warning) {
  counted_job& fitting = queue_job();
  fitting.result = std::string(1048562, 'x');
  fitting.done = true;
  EXPECT_EQ(drain(megabyte), slices{"FFFF2\r\n" + std::string(1048562, 'x') + "\r\n0\r\n\r\n"});
  EXPECT_EQ(console_.text(), "");

  counted_job& too_long = queue_job(33);
  too_long.result = std::string(1048563, 'x');
  too_long.done = true;
  c().last_active = 0;
  EXPECT_EQ(drain(megabyte), slices{"0\r\n\r\n"});
  EXPECT_GT(c().last_active, 0) << "the end of the chunks counts as activity, too";
  EXPECT_EQ(console_.text(), "Warning! Thread response (1048577) exceeds buffer size (1048576).\n");
  EXPECT_EQ(c().timeout, 33);
  EXPECT_EQ(jobs_deleted, 2);
}

TEST_F(http_response_parts, warning_of_a_dropped_result_is_not_flushed_to_the_console) {
  EXPECT_TRUE(prints_without_flush([&] {
    counted_job& job = queue_job();
    job.result = std::string(1048576, 'x');
    job.done = true;
    send_once(c());
  }));
  EXPECT_EQ(console_.text(), "Warning! Thread response (1048591) exceeds buffer size (1048576).\n");
}

TEST_F(http_response_parts, jobs_result_longer_than_the_buffer_offered_goes_out_in_slices) {
  counted_job& job = queue_job();
  job.result = "hello";
  job.done = true;
  EXPECT_EQ(drain(6), (slices{"5\r\nhel", "lo\r\n0\r", "\n\r\n"}));
  EXPECT_EQ(jobs_deleted, 1);
}

TEST_F(http_response_parts, still_queued_are_freed_with_the_connection) {
  const int descriptor = fileno(queue_file("x").file);
  queue_data(std::string(100, 'x'));
  queue_job();
  queue_job().done = true;
  destroy_connection();
  EXPECT_FALSE(is_open(descriptor));
  EXPECT_EQ(jobs_deleted, 2);
  EXPECT_EQ(console_.text(), "");
}
