#include <gtest/gtest.h>

#include <random>

#include "tests/tls/printable_runs.h"
#include "tests/tls/temp_folder.h"
#include "tls/import.h"

namespace {

constexpr size_t block = 4096;

struct strings_scan : testing::Test {
  temp_folder folder;

  /* What is found in a file that holds `bytes`. */
  std::string strings_in(const std::string& bytes) const {
    std::string out;
    EXPECT_TRUE(get_strings(folder.write("file", bytes), out));
    return out;
  }
};

/* A byte that ends a run. */
const std::string nul(1, '\0');

}  // namespace

TEST_F(strings_scan, run_of_4_is_dropped_and_run_of_5_is_recorded) {
  EXPECT_EQ(strings_in("1234" + nul), "");
  EXPECT_EQ(strings_in("12345" + nul), "12345\n");
  EXPECT_EQ(strings_in("1234" + nul + "12345" + nul + "4321" + nul + "654321" + nul), "12345\n654321\n");
}

TEST_F(strings_scan, bytes_from_32_to_127_belong_to_a_run_and_all_others_end_it) {
  for (int c = 0; c < 256; c++) {
    const char byte = static_cast<char>(c);
    const bool is_printable = c >= 32 && c <= 127;
    const std::string bytes = std::string("abcde") + byte + "fghij" + nul;
    EXPECT_EQ(strings_in(bytes), is_printable ? std::string("abcde") + byte + "fghij\n" : "abcde\nfghij\n")
        << c;
  }
}

TEST_F(strings_scan, byte_of_0x80_or_above_cuts_a_run_into_two_short_ones) {
  EXPECT_EQ(strings_in("abcd\x80"
                       "efgh\xff"
                       "ijkl" +
                       nul),
            "");
}

TEST_F(strings_scan, run_at_the_end_of_the_file_is_dropped) {
  EXPECT_EQ(strings_in("/usr/lib/libssl.so.3"), "");
  EXPECT_EQ(strings_in("first" + nul + "second"), "first\n");
  EXPECT_EQ(strings_in("first\n"), "first\n");
}

TEST_F(strings_scan, run_is_the_same_wherever_the_block_border_cuts_it) {
  const std::string run = "/lib/libssl.so.3";
  for (size_t cut = 0; cut <= run.size() + 1; cut++) {
    EXPECT_EQ(strings_in(std::string(block - cut, '\0') + run + nul), run + "\n") << cut;
  }
}

TEST_F(strings_scan, run_may_span_several_blocks) {
  const std::string run(3 * block + 1, 'x');
  EXPECT_EQ(strings_in(nul + run + nul), run + "\n");
}

TEST_F(strings_scan, short_run_does_not_grow_by_a_block_border) {
  EXPECT_EQ(strings_in(std::string(block - 2, '\0') + "1234" + nul), "");
}

TEST_F(strings_scan, file_of_whole_blocks_is_read_to_its_end) {
  for (size_t blocks : {1U, 2U, 3U}) {
    const size_t size = blocks * block;
    EXPECT_EQ(strings_in(std::string(size - 6, '\0') + "12345" + nul), "12345\n") << blocks;
    EXPECT_EQ(strings_in(std::string(size - 5, '\0') + "12345"), "") << "open at the end of block " << blocks;
  }
}

TEST_F(strings_scan, empty_file_is_read_without_finding_anything) {
  EXPECT_EQ(strings_in(""), "");
}

TEST_F(strings_scan, what_is_found_is_appended) {
  std::string out = "before\n";
  EXPECT_TRUE(get_strings(folder.write("file", "after" + nul), out));
  EXPECT_EQ(out, "before\nafter\n");
}

TEST_F(strings_scan, file_that_cannot_be_opened_leaves_the_output_alone) {
  std::string out = "before\n";
  EXPECT_FALSE(get_strings(folder.path() + "/missing", out));
  EXPECT_EQ(out, "before\n");
}

TEST_F(strings_scan, failed_read_ends_the_scan_with_success) {
  std::string out = "before\n";
  EXPECT_TRUE(get_strings(folder.path(), out));  // a folder can be opened, but not read
  EXPECT_EQ(out, "before\n");
}

TEST_F(strings_scan, file_is_closed_at_the_end_of_the_scan_and_after_a_failed_read) {
  const std::string file = folder.write("file", "12345" + nul);
  for (const std::string& path : {file, folder.path()}) {
    std::string out;
    EXPECT_TRUE(get_strings(path, out));
    EXPECT_FALSE(is_open(path)) << path;
  }
}

TEST_F(strings_scan, any_bytes_give_the_runs_that_a_search_of_the_whole_text_finds) {
  std::mt19937 next(4096);
  for (size_t size : {block - 1, block, block + 1, 2 * block, 2 * block + 7, 5 * block}) {
    std::string bytes(size, '\0');
    // Three of four bytes are printable. This gives runs of every length up to some dozens.
    for (char& c : bytes) c = static_cast<char>(next() % 4 ? 32 + next() % 96 : next() % 256);
    EXPECT_EQ(strings_in(bytes), printable_runs(bytes)) << size;
  }
}
