// The web server of the testbed, asked by a client that knows nothing but sockets.
#include "release.h"
#include "server.h"

#include <arpa/inet.h>
#include <array>
#include <future>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

using testbed::Answer;
using testbed::Server;

namespace {

// Sends one request and reads until the server closes or `seconds` pass.
std::string ask(const Server& server, const std::string& target, int seconds = 5) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(server.port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  timeval patience{seconds, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  std::string answer;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    const std::string request = "GET " + target +
                                " HTTP/1.1\r\nHost: localhost\r\nUser-Agent: Tester/1\r\n"
                                "Connection: close\r\n\r\n";
    EXPECT_EQ(send(fd, request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
    std::array<char, 4096> buffer;
    for (ssize_t count; (count = recv(fd, buffer.data(), buffer.size(), 0)) > 0;)
      answer.append(buffer.data(), static_cast<std::size_t>(count));
  }
  close(fd);
  return answer;
}

std::string body(const std::string& answer) {
  const auto end = answer.find("\r\n\r\n");
  return end == answer.npos ? "" : answer.substr(end + 4);
}

Answer troubled(Answer::Trouble trouble, std::size_t after) {
  Answer answer{"0123456789"};
  answer.trouble = trouble;
  answer.after = after;
  return answer;
}

} // namespace

TEST(Server, AnswersWhatIsServedAndRecordsWhatIsAsked) {
  Server server;
  server.serve("/a", {"hello", "text/plain", 201, {{"X-Own", "yes"}}});
  const std::string answer = ask(server, "/a?k%20=v%26&k=2&empty");
  EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 201");
  EXPECT_NE(answer.find("X-Own: yes"), answer.npos);
  EXPECT_NE(answer.find("Content-Type: text/plain"), answer.npos);
  EXPECT_EQ(body(answer), "hello");
  const auto requests = server.requests("/a");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].query, "k%20=v%26&k=2&empty");
  EXPECT_EQ(requests[0].parameters.size(), 3u);
  EXPECT_EQ(requests[0].parameter("k "), "v&");
  EXPECT_EQ(requests[0].parameter("k"), "2");
  EXPECT_EQ(requests[0].user_agent, "Tester/1");
}

TEST(Server, AnswersNotFoundForTheRest) {
  Server server;
  EXPECT_EQ(ask(server, "/").substr(0, 12), "HTTP/1.1 404");
  server.serve("/", {"", "text/xml", 204});
  EXPECT_EQ(ask(server, "/").substr(0, 12), "HTTP/1.1 204");
  EXPECT_EQ(server.requests().size(), 2u);
}

TEST(Server, ServesFilesAsTheyAreNow) {
  Server server;
  testbed::Folder folder;
  Answer answer;
  answer.file = folder / "file";
  server.serve("/file", answer);
  EXPECT_EQ(ask(server, "/file").substr(0, 12), "HTTP/1.1 500");
  testbed::write_file(folder / "file", "one");
  EXPECT_EQ(body(ask(server, "/file")), "one");
  testbed::write_file(folder / "file", "two");
  EXPECT_EQ(body(ask(server, "/file")), "two");
}

TEST(Server, TruncatesStallsHangsUpAndTalksJunk) {
  Server server;
  server.serve("/truncate", troubled(Answer::Trouble::truncate, 4));
  const std::string truncated = ask(server, "/truncate");
  EXPECT_NE(truncated.find("Content-Length: 10"), truncated.npos);
  EXPECT_EQ(body(truncated), "0123");
  server.serve("/stall", troubled(Answer::Trouble::stall, 4));
  auto stalled = std::async([&] { return ask(server, "/stall", 1); });
  EXPECT_EQ(ask(server, "/truncate"), truncated); // nobody else is held up
  EXPECT_EQ(body(stalled.get()), "0123");
  server.serve("/hang_up", troubled(Answer::Trouble::hang_up, 4));
  EXPECT_EQ(ask(server, "/hang_up"), "");
  server.serve("/junk", troubled(Answer::Trouble::junk, 0));
  EXPECT_EQ(ask(server, "/junk"), "0123456789");
}

TEST(Server, EndsStalledConnectionsWithItself) {
  std::future<std::string> stalled;
  {
    Server server;
    server.serve("/stall", troubled(Answer::Trouble::stall, 4));
    stalled = std::async(std::launch::async, [&] { return ask(server, "/stall", 30); });
    while (server.requests().empty()) usleep(1000);
    stalled.wait_for(std::chrono::milliseconds(200));
  }
  EXPECT_EQ(body(stalled.get()), "0123");
}

TEST(Server, ServesLargeBodies) {
  Server server;
  server.serve("/large", {std::string(20 << 20, 'x')});
  EXPECT_EQ(body(ask(server, "/large")).size(), 20u << 20);
}

TEST(Release, FolderGoesWithItsObject) {
  std::filesystem::path path;
  {
    testbed::Folder folder;
    path = folder.path();
    testbed::write_file(folder / "a/b/c", "x");
    EXPECT_EQ(testbed::read_file(folder / "a/b/c"), "x");
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(Release, ApplicationOnDiskTellsItsVersionAndMarksItsStart) {
  testbed::Folder folder;
  testbed::Application application;
  application.version = "3.1";
  application.marker = folder / "marker";
  application.info["SUFeedURL"] = "http://example.org/?a&b";
  const auto bundle = testbed::write_application(application, folder.path());
  EXPECT_EQ(testbed::installed_version(bundle), "3.1");
  ASSERT_EQ(std::system(("'" + (bundle / "Contents/MacOS/Demo").string() + "'").c_str()), 0);
  EXPECT_EQ(testbed::read_file(application.marker).substr(0, 4), "3.1\n");
}

TEST(Release, SignaturesDifferByKeyAndArchive) {
  const testbed::KeyPair one = testbed::make_key_pair(), two = testbed::make_key_pair();
  EXPECT_NE(one.public_pem, two.public_pem);
  EXPECT_NE(testbed::sign(one, "a"), testbed::sign(one, "b"));
  EXPECT_EQ(testbed::sign(one, "a").find('\n'), std::string::npos);
}

TEST(Release, PublishServesArchiveAndFeed) {
  Server server;
  testbed::Application application;
  application.version = "2.0";
  const testbed::Item item = testbed::publish(server, application, testbed::make_key_pair());
  EXPECT_EQ(item.url, server.url("/Demo_2.0.zip"));
  EXPECT_EQ(body(ask(server, "/Demo_2.0.zip")).size(), std::stoul(item.length));
  const std::string feed = body(ask(server, "/appcast.xml"));
  EXPECT_NE(feed.find("sparkle:dsaSignature=\"" + item.signature + "\""), feed.npos);
}
