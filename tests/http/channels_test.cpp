// The registry of channels, and how a connection that ends leaves its channels.

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "http/http_connection.h"
#include "tests/http/delivery.h"
#include "tests/net/child.h"
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

  // Makes `c` a member of the channel without adding to its subscriptions.
  static void enlist(http_connection& c, const std::string& channel) {
    list* all = http_connection::channels().get(channel);
    if (!all) {
      all = new list;  // deleted by the last member, or by the fixture
      http_connection::channels().set(channel, all);
    }
    all->add(&c);
  }

  static members of(const std::string& channel) {
    const list* all = http_connection::channels().get(channel);
    return all ? members(all->data, all->data + all->count) : members();
  }

  console console_;
};

// Like the connections of a server in a global variable, it ends after main().
std::unique_ptr<http_connection> global;

}  // namespace

TEST_F(websocket_channels, start_as_one_empty_map) {
  EXPECT_EQ(http_connection::channels().count, 0u);
  EXPECT_EQ(http_connection::channels().hash, base::tovel_hash);
  EXPECT_EQ(&http_connection::channels(), &http_connection::channels());
}

TEST_F(websocket_channels, get_a_member_once_with_the_channel_among_its_subscriptions) {
  auto a = upgraded(), b = upgraded();
  for (http_connection* each : {a.get(), b.get(), a.get()}) each->subscribe("news");
  a->subscribe("sport");
  EXPECT_EQ(of("news"), (members{a.get(), b.get()}));
  EXPECT_EQ(of("sport"), members{a.get()});
  ASSERT_EQ(a->subscriptions.count, 2u);
  EXPECT_EQ(*a->subscriptions.keys[0], "news");
  EXPECT_EQ(*a->subscriptions.keys[1], "sport");
  EXPECT_EQ(b->subscriptions.count, 1u);
}

TEST_F(websocket_channels, refuse_a_member_that_would_never_leave) {
  auto c = upgraded();
  c->upgraded = false;
  c->subscribe("news");
  EXPECT_EQ(http_connection::channels().count, 0u);
  EXPECT_EQ(c->subscriptions.count, 0u);
}

TEST_F(websocket_channels, are_left_one_by_one) {
  auto a = upgraded(), b = upgraded();
  for (http_connection* each : {a.get(), b.get()}) each->subscribe("news");
  a->subscribe("sport");
  a->unsubscribe("news");
  EXPECT_EQ(of("news"), members{b.get()});
  EXPECT_EQ(of("sport"), members{a.get()});
  a->unsubscribe(*a->subscriptions.keys[0]);
  EXPECT_EQ(http_connection::channels().get("sport"), nullptr);
  EXPECT_EQ(a->subscriptions.count, 0u);
  a->unsubscribe("news");  // it is no longer a member
  a->unsubscribe("absent");
  EXPECT_EQ(of("news"), members{b.get()});
  EXPECT_EQ(console_.text(), "");
}

TEST_F(websocket_channels, pass_on_what_is_published_to_members_that_stay) {
  auto a = upgraded(), b = upgraded(), closing = upgraded(), other = upgraded();
  for (http_connection* each : {b.get(), closing.get(), a.get()}) each->subscribe("news");
  other->subscribe("sport");
  closing->hang_up();
  http_connection::publish("news", "extra", http_connection::text_frame);
  http_connection::publish("news", "x", http_connection::binary_frame);
  http_connection::publish("absent", "lost", http_connection::text_frame);
  for (http_connection* each : {a.get(), b.get()})
    EXPECT_EQ(send_everything(*each),
              "\x81\x05"
              "extra\x82\x01x");
  EXPECT_EQ(closing->response_parts.count, 0);
  EXPECT_EQ(other->response_parts.count, 0);
}

// If the registry were destroyed before the connection, the sanitizer would end the child with an error. A
// variable of the test would not do: when another test has used the registry before, the variable ends first.
TEST_F(websocket_channels, still_exist_for_a_connection_that_ends_after_main) {
  EXPECT_TRUE(run_in_child([] {
    global = upgraded();
    global->subscribe("news");
    exit(0);
  }));
}

TEST_F(websocket_channels, lose_a_connection_that_ends_and_keep_the_others_in_order) {
  auto a = upgraded(), b = upgraded(), c = upgraded();
  for (http_connection* each : {a.get(), b.get(), c.get()}) each->subscribe("news");
  b->subscribe("sport");
  c->subscribe("sport");
  b.reset();
  EXPECT_EQ(of("news"), (members{a.get(), c.get()}));
  EXPECT_EQ(of("sport"), members{c.get()});
  a.reset();
  EXPECT_EQ(of("news"), members{c.get()});
  EXPECT_EQ(console_.text(), "");
}

// The address sanitizer reports a list that is not freed.
TEST_F(websocket_channels, end_with_their_last_member) {
  auto a = upgraded(), b = upgraded();
  a->subscribe("news");
  a->subscribe("sport");
  b->subscribe("sport");
  a.reset();
  ASSERT_EQ(http_connection::channels().count, 1u);
  EXPECT_EQ(*http_connection::channels().keys[0], "sport");
  b.reset();
  EXPECT_EQ(http_connection::channels().count, 0u);
  EXPECT_EQ(console_.text(), "");
}

TEST_F(websocket_channels, keep_a_connection_that_was_never_upgraded) {
  auto c = upgraded();
  c->subscribe("news");
  c->upgraded = false;
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

TEST_F(websocket_channels, that_do_not_exist_are_reported_in_the_order_of_the_subscriptions) {
  auto c = upgraded();
  for (const char* name : {"zebra", "ant", "", "mule", "bee"}) c->subscriptions.set(name, {});
  c.reset();
  EXPECT_EQ(console_.text(),
            "Error! Channel not found: zebra\nError! Channel not found: ant\nError! Channel not found: \n"
            "Error! Channel not found: mule\nError! Channel not found: bee\n");
}

TEST_F(websocket_channels, without_the_connection_are_reported_with_its_socket_and_stay_unchanged) {
  auto other = upgraded(7);
  auto c = upgraded(41);
  other->subscribe("news");
  c->subscribe("sport");
  http_connection::channels().set("empty", new list);  // deleted by the fixture
  for (const char* name : {"absent", "news", "empty"}) c->subscriptions.set(name, {});
  c.reset();
  EXPECT_EQ(console_.text(),
            "Error! Channel not found: absent\nError! Subscription for 41 to news not found!\n"
            "Error! Subscription for 41 to empty not found!\n");
  EXPECT_EQ(of("news"), members{other.get()});
  EXPECT_EQ(http_connection::channels().count, 2u) << "sport, which has lost its last member, is gone";
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
