// An HTTP server on loopback, in the process of the test or the demo, on threads of its own.
//
// Ownership: a Server owns its threads and connections; its destructor ends them all, stalled ones
// too. What it takes and gives are copies. Threads: every member may be called from any thread at
// any time. Errors: the constructor throws std::runtime_error when no port can be had; nothing else
// throws. A route that is not served answers 404; a route whose file cannot be read answers 500.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace testbed {

// What a route answers.
struct Answer {
  std::string body;
  std::string content_type = "text/xml";
  int status = 200;
  std::map<std::string, std::string> headers = {};
  std::optional<std::filesystem::path> file = {}; // instead of `body`, read at each request

  enum class Trouble {
    none,
    truncate, // promise the whole body, send `after` bytes, close
    stall,    // promise the whole body, send `after` bytes, then nothing more
    junk,     // send `body` as it is, without any HTTP around it, and close
    hang_up,  // close without a word
  };
  Trouble trouble = Trouble::none;
  std::size_t after = 0;
};

// What a client asked.
struct Request {
  std::string method;
  std::string path;  // as sent, still escaped, without the query
  std::string query; // as sent, without the "?"; empty when there is none
  std::vector<std::pair<std::string, std::string>> parameters; // the query, decoded, in its order
  std::string user_agent;

  // The value of the first parameter of this name; empty when there is none.
  std::string parameter(std::string_view name) const;
};

class Server {
public:
  Server(); // listens on 127.0.0.1, on a port that is free
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // "http://127.0.0.1:PORT" and the path, which begins with "/".
  std::string url(std::string_view path) const;
  std::uint16_t port() const;

  // Sets or replaces what `path` (without query) answers from now on.
  void serve(const std::string& path, Answer answer);

  // Everything asked so far, in the order of arrival, answered or not.
  std::vector<Request> requests() const;
  // The requests for one path.
  std::vector<Request> requests(std::string_view path) const;

private:
  struct State;
  std::unique_ptr<State> state_;
};

} // namespace testbed
