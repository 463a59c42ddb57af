// The registry of channels, and how a connection takes itself out of it when it ends.

#include <gtest/gtest.h>

#include <memory>

#include "http/http_connection.h"
#include "tests/support/console.h"

namespace {

using members = std::vector<http_connection*>;
using list = base::arraylist<http_connection*>;

class websocket_channels : public testing::Test {
 protected:
  ~websocket_channels() override {
    while (http_connection::channels().count > 0) {
      const std::string name = *http_connection::channels().keys[0];
      delete http_connection::channels().get(name);
      http_connection::channels().remove(name);
    }
  }

  static std::unique_ptr<http_connection> upgraded(int sock = -1) {
    auto c = std::make_unique<http_connection>();
    c->upgraded = true;
    c->sock = sock;
    return c;
  }

  // Makes `c` a member of the channel, without its knowledge.
  static void enlist(http_connection& c, const std::string& channel) {
    list* all = http_connection::channels().get(channel);
    if (!all) {
      all = new list;  // deleted by the last member, or by the fixture
      http_connection::channels().set(channel, all);
    }
    all->add(&c);
  }

  static void subscribe(http_connection& c, const std::string& channel) {
    enlist(c, channel);
    c.subscriptions.set(channel, {});
  }

  static members of(const std::string& channel) {
    const list* all = http_connection::channels().get(channel);
    return all ? members(all->data, all->data + all->count) : members();
  }

  console console_;
};

}  // namespace

TEST_F(websocket_channels, start_as_one_empty_map) {
  EXPECT_EQ(http_connection::channels().count, 0u);
  EXPECT_EQ(http_connection::channels().hash, base::tovel_hash);
  EXPECT_EQ(&http_connection::channels(), &http_connection::channels());
}

TEST_F(websocket_channels, lose_a_connection_that_ends_and_keep_the_others_in_order) {
  auto a = upgraded(), b = upgraded(), c = upgraded();
  for (http_connection* each : {a.get(), b.get(), c.get()}) subscribe(*each, "news");
  subscribe(*b, "sport");
  subscribe(*c, "sport");
  b.reset();
  EXPECT_EQ(of("news"), (members{a.get(), c.get()}));
  EXPECT_EQ(of("sport"), members{c.get()});
  a.reset();
  EXPECT_EQ(of("news"), members{c.get()});
  EXPECT_EQ(console_.text(), "");
}

// The address sanitizer tells if the list itself is not freed.
TEST_F(websocket_channels, end_with_their_last_member) {
  auto a = upgraded(), b = upgraded();
  subscribe(*a, "news");
  subscribe(*a, "sport");
  subscribe(*b, "sport");
  a.reset();
  ASSERT_EQ(http_connection::channels().count, 1u);
  EXPECT_EQ(*http_connection::channels().keys[0], "sport");
  b.reset();
  EXPECT_EQ(http_connection::channels().count, 0u);
  EXPECT_EQ(console_.text(), "");
}

TEST_F(websocket_channels, keep_a_connection_that_was_never_upgraded) {
  auto c = upgraded();
  c->upgraded = false;
  subscribe(*c, "news");
  c->subscriptions.set("absent", {});
  c.reset();
  EXPECT_EQ(of("news").size(), 1u);
  EXPECT_EQ(console_.text(), "");
}

TEST_F(websocket_channels, keep_a_connection_that_does_not_know_of_its_membership) {
  auto c = upgraded();
  enlist(*c, "news");
  c.reset();
  EXPECT_EQ(of("news").size(), 1u);
}

TEST_F(websocket_channels, that_do_not_exist_are_named_in_the_order_of_the_subscriptions) {
  auto c = upgraded();
  for (const char* name : {"zebra", "ant", "", "mule", "bee"}) c->subscriptions.set(name, {});
  c.reset();
  EXPECT_EQ(console_.text(),
            "Error! Channel not found: zebra\nError! Channel not found: ant\nError! Channel not found: \n"
            "Error! Channel not found: mule\nError! Channel not found: bee\n");
}

TEST_F(websocket_channels, without_the_connection_are_named_with_its_socket_and_left_alone) {
  auto other = upgraded(7);
  auto c = upgraded(41);
  subscribe(*other, "news");
  subscribe(*c, "sport");
  http_connection::channels().set("empty", new list);  // deleted by the fixture
  for (const char* name : {"absent", "news", "empty"}) c->subscriptions.set(name, {});
  c.reset();
  EXPECT_EQ(console_.text(),
            "Error! Channel not found: absent\nError! Subscription for 41 to news not found!\n"
            "Error! Subscription for 41 to empty not found!\n");
  EXPECT_EQ(of("news"), members{other.get()});
  EXPECT_EQ(http_connection::channels().count, 2u) << "sport was left in good order";
}

TEST_F(websocket_channels, are_left_after_the_queued_output_is_freed) {
  struct speaking_job : http_connection::job {
    ~speaking_job() override { printf("job deleted\n"); }
  };
  auto c = upgraded();
  auto* part = new http_connection::response_part;
  part->thread = new speaking_job;
  c->response_parts.push(part);
  c->subscriptions.set("absent", {});
  c.reset();
  EXPECT_EQ(console_.text(), "job deleted\nError! Channel not found: absent\n");
}
