// Who may drive the dashboard: a browser on this machine that holds the token the server printed,
// on a page the server served itself.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tvoxsp::serve
{

enum class Verdict { allowed, no_token, foreign_host, foreign_origin };

class Access
{
  public:
    // `hosts`: the "HOST:PORT" forms a browser on this machine uses to reach the server.
    Access(std::string token, std::vector<std::string> hosts);

    // Every request: its Host header, its Origin header (empty when it sent none), the token of
    // its query string and its Cookie header.
    Verdict check(std::string_view host, std::string_view origin, std::string_view query_token,
                  std::string_view cookies) const;

    const std::string &token() const { return token_; }
    // The cookie the page gets with the token: the browser sends it with the page's own requests
    // (modules, style sheets) and never with another site's.
    std::string cookie_name() const;
    std::string set_cookie() const;

  private:
    bool token_matches(std::string_view candidate) const;

    std::string token_;
    std::vector<std::string> hosts_;
};

// 128 random bits as 32 hex digits; empty when the system gives none.
std::string random_token();

// The Host forms of a server bound to `bind` on `port`.
std::vector<std::string> local_hosts(const std::string &bind, int port);

} // namespace tvoxsp::serve
