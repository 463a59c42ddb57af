#include "tls/certificate_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/tls/temp_folder.h"

namespace {

struct path_pair {
  const char* given;
  const char* clean;
};

void expect_clean(const std::vector<path_pair>& pairs) {
  for (const path_pair& p : pairs) EXPECT_EQ(clean_path(p.given), p.clean) << "from " << p.given;
}

/* A PEM block. Its content does not matter. */
std::string pem(const std::string& label, const std::string& line_end = "\n") {
  return "-----BEGIN " + label + "-----" + line_end + "MIIB" + line_end + "-----END " + label + "-----" +
         line_end;
}

const std::string certificate = pem("CERTIFICATE");

struct certificate_file : testing::Test {
  temp_folder folder;

  int count_in(const std::string& text) const { return count_certificates(folder.write("crt.pem", text)); }
};

}  // namespace

TEST(clean_path, ordinary_paths_stay_as_they_are) {
  for (const char* path :
       {"", "a", "/", "/a", "a/b", "/etc/ssl/crt.pem", "..", "../a", "a..b", "/.a", "a.b/c."})
    EXPECT_EQ(clean_path(path), path);
}

TEST(clean_path, slash_after_a_slash_is_dropped) {
  expect_clean({{"//", "/"}, {"///", "/"}, {"//a", "/a"}, {"a//b", "a/b"}, {"a////b//c", "a/b/c"}});
}

TEST(clean_path, backslash_counts_as_a_slash) {
  expect_clean({{"\\", "/"},
                {"\\a\\b", "/a/b"},
                {"a\\\\b", "a/b"},
                {"a/\\b", "a/b"},
                {"a\\/b", "a/b"},
                {"C:\\ssl\\crt.pem", "C:/ssl/crt.pem"}});
}

TEST(clean_path, dot_between_slashes_is_dropped_with_the_slash_after_it) {
  expect_clean({{"/./a", "/a"},
                {"a/./b", "a/b"},
                {"a/././b", "a/b"},
                {"a/.//b", "a/b"},
                {"a//./b", "a/b"},
                {"\\./a", "/a"},
                {"a/./\\b", "a/b"},
                {"/./", "/"}});
}

TEST(clean_path, dot_slash_at_the_very_start_is_kept) {
  expect_clean({{"./a", "./a"}, {"././a", "./a"}, {".//a", "./a"}, {".\\a", "./a"}});
}

TEST(clean_path, two_dots_get_no_special_treatment) {
  expect_clean({{"a/../b", "a/../b"}, {"/../a", "/../a"}, {"a/..", "a/.."}, {"a/.../b", "a/.../b"}});
}

TEST(clean_path, dot_that_no_slash_follows_is_kept) {
  expect_clean({{"a/.", "a/."}, {"/.", "/."}, {"a/.b", "a/.b"}, {"a/.\\b", "a/./b"}, {"\\.\\a", "/./a"}});
}

TEST(clean_path, one_slash_at_the_end_is_removed_unless_the_path_is_only_a_slash) {
  expect_clean(
      {{"a/", "a"}, {"a//", "a"}, {"/a/", "/a"}, {"a\\", "a"}, {"a/./", "a"}, {"./", "."}, {"\\\\", "/"}});
}

TEST_F(certificate_file, time_is_that_of_the_last_modification_in_whole_seconds) {
  const std::string path = folder.write("crt.pem", certificate);
  for (int64_t nanoseconds : {0, 1, 999999999}) {
    set_file_time(path, 1234567890, nanoseconds);
    EXPECT_EQ(certificate_file_time(path), 1234567890.0);
  }
}

TEST_F(certificate_file, time_of_a_missing_file_is_0) {
  EXPECT_EQ(certificate_file_time(folder.path() + "/missing.pem"), 0.0);
  EXPECT_EQ(certificate_file_time(""), 0.0);
}

TEST_F(certificate_file, time_of_a_link_is_that_of_its_target) {
  set_file_time(folder.write("crt.pem", certificate), 1000000000);
  std::filesystem::create_symlink("crt.pem", folder.path() + "/link.pem");
  EXPECT_EQ(certificate_file_time(folder.path() + "/link.pem"), 1000000000.0);
}

TEST_F(certificate_file, time_is_found_by_an_untidy_path) {
  set_file_time(folder.write("crt.pem", certificate), 1000000000);
  for (const char* end :
       {"/crt.pem", "//crt.pem", "/./crt.pem", "\\crt.pem", "\\\\crt.pem", "/././/crt.pem", "/crt.pem/"})
    EXPECT_EQ(certificate_file_time(folder.path() + end), 1000000000.0) << end;
}

TEST_F(certificate_file, certificates_are_counted_by_their_first_lines) {
  const std::string key = pem("PRIVATE KEY");
  EXPECT_EQ(count_in(""), 0);
  EXPECT_EQ(count_in(key), 0);
  EXPECT_EQ(count_in(certificate), 1);
  EXPECT_EQ(count_in(certificate + certificate), 2);
  EXPECT_EQ(count_in(key + certificate + "\nsome text\n" + certificate + key + certificate), 3);
}

TEST_F(certificate_file, every_label_of_a_certificate_counts) {
  EXPECT_EQ(count_in(pem("X509 CERTIFICATE") + pem("TRUSTED CERTIFICATE") + certificate), 3);
  EXPECT_EQ(count_in(pem("CERTIFICATE REQUEST") + pem("X509 CRL")), 0);
}

TEST_F(certificate_file, first_line_of_a_certificate_has_five_hyphens_after_its_label) {
  EXPECT_EQ(count_in("-----BEGIN CERTIFICATE----\n" + certificate), 1);
}

TEST_F(certificate_file, line_ends_do_not_matter) {
  const std::string from_windows = pem("CERTIFICATE", "\r\n");
  EXPECT_EQ(count_in(from_windows + from_windows), 2);
  const std::string unended = certificate + certificate;
  EXPECT_EQ(count_in(unended.substr(0, unended.size() - 1)), 2);
}

TEST_F(certificate_file, words_in_the_middle_of_a_line_are_no_certificate) {
  EXPECT_EQ(count_in("see -----BEGIN CERTIFICATE-----\n" + certificate), 1);
}

TEST_F(certificate_file, words_far_from_the_start_of_a_line_are_no_certificate_either) {
  for (size_t length : {254U, 255U, 256U, 510U})
    EXPECT_EQ(count_in(std::string(length, ' ') + certificate), 0) << length;
}

TEST_F(certificate_file, file_is_closed_once_its_certificates_are_counted) {
  EXPECT_EQ(count_in(certificate), 1);
  EXPECT_FALSE(is_open(folder.path() + "/crt.pem"));
}

TEST_F(certificate_file, missing_file_holds_no_certificate) {
  EXPECT_EQ(count_certificates(folder.path() + "/missing.pem"), 0);
}
