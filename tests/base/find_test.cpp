#include "base/find.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using namespace std::string_literals;

namespace {

constexpr size_t npos = std::string::npos;
constexpr size_t untouched = 4711;

struct match {
  size_t start, end;
  bool operator==(const match& other) const { return start == other.start && end == other.end; }
};

constexpr match miss = {npos, untouched};

std::ostream& operator<<(std::ostream& out, const match& m) {
  return out << "[" << m.start << ", " << m.end << ")";
}

match find(const std::string& text, const std::string& pattern) {
  match m = {0, untouched};
  m.start = base::find(text, pattern, m.end);
  return m;
}

struct row {
  std::string text, pattern;
  match expected;
};

void expect_matches(const std::vector<row>& rows) {
  for (const auto& r : rows)
    EXPECT_EQ(find(r.text, r.pattern), r.expected)
        << testing::PrintToString(r.text) << " " << testing::PrintToString(r.pattern);
}

// Letter case counts as long as this lives.
struct case_matters {
  case_matters() { base::find_case_insensitive() = false; }
  ~case_matters() { base::find_case_insensitive() = true; }
};

}  // namespace

TEST(find, letter_case_is_ignored_from_the_start) {
  EXPECT_TRUE(base::find_case_insensitive());
}

TEST(find, letter_case_flag_holds_for_the_whole_process) {
  bool& flag = base::find_case_insensitive();
  {
    case_matters now;
    EXPECT_FALSE(flag);
  }
  EXPECT_TRUE(flag);
}

TEST(find, plain_pattern_is_found_at_its_first_place) {
  expect_matches({
      {"abcabc", "abc", {0, 3}},
      {"xabcabc", "abc", {1, 4}},
      {"xabc", "c", {3, 4}},
      {"abc", "abc", {0, 3}},
      {"a\0b"s, "\0b"s, {1, 3}},
      {"abc", "", {0, 0}},
  });
}

TEST(find, miss_leaves_the_end_alone) {
  expect_matches({
      {"abc", "d", miss},
      {"abc", "abcd", miss},
      {"", "a", miss},
      {"ab", "ba", miss},
      {"abc", "c?", miss},
      {"abc", "c*b", miss},
  });
}

TEST(find, mismatch_restarts_one_byte_further_on) {
  expect_matches({
      {"aab", "ab", {1, 3}},
      {"aaaab", "aab", {2, 5}},
      {"\r\r\nhost", "\r\nhost", {1, 7}},
      {"\r\n\r\nhost", "\r\nhost", {2, 8}},
  });
}

TEST(find, letters_match_in_any_case_on_either_side) {
  expect_matches({
      {"\r\nContent-LENGTH: 5", "\r\ncontent-length", {0, 16}},
      {"\r\ncontent-length: 5", "\r\nCONTENT-Length", {0, 16}},
      {"zZ", "Zz", {0, 2}},
      {"aA", "Aa", {0, 2}},
  });
}

TEST(find, only_the_letters_a_to_z_have_a_case) {
  for (int c = 0; c < 256; c++) {
    const char letter = static_cast<char>(c);
    const bool is_letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    const std::string other_case(1, static_cast<char>(c ^ 0x20));
    if (letter == '?' || letter == '*' || other_case == "?" || other_case == "*") continue;
    EXPECT_EQ(find(other_case, std::string(1, letter)), is_letter ? (match{0, 1}) : miss) << c;
  }
}

TEST(find, letter_case_counts_when_the_flag_is_clear) {
  case_matters now;
  expect_matches({{"Host", "host", miss}, {"host Host", "Host", {5, 9}}, {"A", "?", {0, 1}}});
}

TEST(find, question_mark_matches_any_one_byte) {
  expect_matches({
      {"abc", "a?c", {0, 3}},
      {"a\nc", "a?c", {0, 3}},
      {"a\0c"s, "a?c", {0, 3}},
      {"a\xff", "a?", {0, 2}},
      {"ac", "a?c", miss},
      {"a", "??", miss},
      {"xyz", "??", {0, 2}},
  });
}

TEST(find, star_matches_the_shortest_run_that_lets_the_rest_match) {
  expect_matches({
      {"abc", "a*c", {0, 3}},
      {"ac", "a*c", {0, 2}},
      {"axcxc", "a*c", {0, 3}},
      {"abc", "a*", {0, 1}},
      {"xabc", "*c", {0, 4}},
      {"xaxbxcx", "a*b*c", {1, 6}},
      {"a\r\nb", "a*b", {0, 4}},
      {"aXbXbc", "a*bc", {0, 6}},
      {"abab", "a**b", {0, 2}},
      {"abcd", "a*?d", {0, 4}},
      {"ab", "*", {0, 0}},
  });
}

TEST(find, wildcards_in_the_text_are_plain_bytes) {
  expect_matches({{"a*b", "axb", miss}, {"a?b", "axb", miss}, {"x*?", "*?", {0, 1}}, {"x*y", "?y", {1, 3}}});
}

namespace {

// Whether pattern[p..] matches at text[t]: tries every run for a star, the shortest first.
bool is_match_by_trial(const std::string& text, size_t t, const std::string& pattern, size_t p, size_t& end) {
  if (p == pattern.size()) {
    end = t;
    return true;
  }
  if (pattern[p] == '*') {
    for (size_t run = t; run <= text.size(); run++) {
      if (is_match_by_trial(text, run, pattern, p + 1, end)) return true;
    }
    return false;
  }
  return t < text.size() && (pattern[p] == '?' || pattern[p] == text[t]) &&
         is_match_by_trial(text, t + 1, pattern, p + 1, end);
}

match find_by_trial(const std::string& text, const std::string& pattern) {
  size_t end = untouched;
  for (size_t start = 0; start <= text.size(); start++) {
    if (is_match_by_trial(text, start, pattern, 0, end)) return {start, end};
  }
  return miss;
}

std::string random_word(std::mt19937& random, size_t longest, const std::string& letters) {
  std::string word(random() % (longest + 1), ' ');
  for (char& c : word) c = letters[random() % letters.size()];
  return word;
}

}  // namespace

TEST(find, agrees_with_trying_every_run_on_random_words) {
  std::mt19937 random(950);
  for (int i = 0; i < 50000; i++) {
    const std::string text = random_word(random, 10, "ab");
    const std::string pattern = random_word(random, 5, "aabb?*");
    ASSERT_EQ(find(text, pattern), find_by_trial(text, pattern)) << text << " " << pattern;
  }
}

namespace {

// The searches look at sixteen bytes at a time. Each text has a heap block of exactly its length, so the
// sanitizer sees a read after its end.
size_t find_line(const std::string& text, const std::string& name, size_t from = 0) {
  const std::vector<char> bytes(text.begin(), text.end());
  return base::find_line({bytes.data(), bytes.size()}, name, from);
}

size_t find_line_end(const std::string& text, size_t from = 0) {
  const std::vector<char> bytes(text.begin(), text.end());
  return base::find_line_end({bytes.data(), bytes.size()}, from);
}

bool is_found(const std::string& name, const std::string& line) {
  return find_line("\r\n" + line, name) == 0;
}

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// A byte at a time, from the front.
size_t find_line_by_trial(const std::string& text, const std::string& name, size_t from) {
  for (size_t at = from; at + 2 + name.size() <= text.size(); at++) {
    bool is_equal = text[at] == '\r' && text[at + 1] == '\n';
    for (size_t i = 0; i < name.size(); i++) is_equal = is_equal && lower(text[at + 2 + i]) == lower(name[i]);
    if (is_equal) return at;
  }
  return npos;
}

}  // namespace

TEST(find_line_end, is_found_at_every_place_in_texts_of_every_length) {
  for (size_t size = 0; size < 70; size++) {
    const std::string text(size, 'x');
    EXPECT_EQ(find_line_end(text), npos);
    for (size_t at = 0; at + 2 <= size; at++) {
      std::string line = text;
      line.replace(at, 2, "\r\n");
      for (size_t from = 0; from < size + 3; from++)
        ASSERT_EQ(find_line_end(line, from), from <= at ? at : npos) << size << " " << at << " " << from;
    }
  }
  EXPECT_EQ(find_line_end("\r\n\r\n", npos), npos);
}

TEST(find_line_end, first_of_many_counts_and_half_a_line_end_does_not) {
  EXPECT_EQ(find_line_end("ab\r\n\r\n\r\n"), 2u);
  EXPECT_EQ(find_line_end("ab\r\n\r\n\r\n", 3), 4u);
  for (const std::string& near_miss : {"\r"s, "\n"s, "\n\r"s, "\r\r"s, "\r\0\n"s, "\n\n\r"s}) {
    std::string text;
    while (text.size() < 100) text += near_miss;
    if (near_miss.back() == '\n') text += 'x';
    EXPECT_EQ(find_line_end(text), find_line_by_trial(text, "", 0)) << testing::PrintToString(near_miss);
  }
}

TEST(find_line, line_is_found_at_every_place_in_texts_of_every_length) {
  for (const std::string& name : {"a"s, "\r\n"s, "host"s, "x-forwarded-for"s, "sec-websocket-version"s}) {
    for (size_t size = 0; size < 90; size++) {
      const std::string text(size, name.back());
      EXPECT_EQ(find_line(text, name), npos);
      for (size_t at = 0; at + 2 + name.size() <= size; at++) {
        std::string line = text;
        line.replace(at, 2 + name.size(), "\r\n" + name);
        ASSERT_EQ(find_line(line, name), at) << name << " " << size;
        ASSERT_EQ(find_line(line, name, at), at) << name << " " << size;
        ASSERT_EQ(find_line(line, name, at + 1), npos) << name << " " << size;
      }
    }
  }
  EXPECT_EQ(find_line("\r\na", "a", npos), npos);
}

TEST(find_line, empty_name_stands_after_every_line_end) {
  EXPECT_EQ(find_line("ab\r\n", ""), 2u);
  EXPECT_EQ(find_line("ab\r\n\r\n", "", 3), 4u);
  EXPECT_EQ(find_line("ab", ""), npos);
}

TEST(find_line, agrees_with_trying_every_place_on_random_texts) {
  std::mt19937 random(1310);
  for (int i = 0; i < 50000; i++) {
    const std::string text = random_word(random, 60, "\r\r\n\nAaBb\x01-");
    const std::string name = random_word(random, 3, "\r\nab-");  // CR is "-" without the case bit
    const size_t from = random() % 70;
    ASSERT_EQ(find_line(text, name, from), find_line_by_trial(text, name, from))
        << testing::PrintToString(text) << " " << testing::PrintToString(name) << " " << from;
  }
}

TEST(find_line, of_all_pairs_of_bytes_only_a_letter_and_its_other_case_are_equal) {
  const std::string upper = "ABCDEFGHIJKLMNOPQRSTUVWXYZ", lower = "abcdefghijklmnopqrstuvwxyz";
  auto is_pair = [&](char a, char b) {
    const size_t at = upper.find(a);
    return at != npos && lower[at] == b;
  };
  for (int i = 0; i < 256; i++) {
    for (int j = 0; j < 256; j++) {
      const char a = static_cast<char>(i), b = static_cast<char>(j);
      const bool expected = i == j || is_pair(a, b) || is_pair(b, a);
      ASSERT_EQ(is_found(std::string(1, a), std::string(1, b)), expected) << i << " " << j;
    }
  }
}

TEST(find_line, every_byte_of_the_name_counts_and_none_after_it) {
  EXPECT_TRUE(is_found("cONTENT-lENGTH", "Content-Length: 5"));
  for (const std::string& word : {"Content-Length"s, "Sec-WebSocket-Version"s}) {
    for (size_t i = 0; i < word.size(); i++) {
      std::string other = word;
      other[i] = '!';
      EXPECT_FALSE(is_found(word, other)) << i;
      EXPECT_TRUE(is_found(word.substr(0, i), other)) << i;
    }
  }
}

TEST(find_line, zero_byte_does_not_end_the_comparison) {
  EXPECT_FALSE(is_found("a\0b"s, "a\0c"s));
  EXPECT_TRUE(is_found("a\0b"s, "A\0B"s));
}

TEST(find_line, ignores_the_flag_of_the_wildcard_search) {
  case_matters now;
  EXPECT_TRUE(is_found("Host", "hOST"));
}
