#include "access.h"

#include <sys/random.h>

#include <array>
#include <cstdio>

namespace tvoxsp::serve
{

Access::Access(std::string token, std::vector<std::string> hosts)
    : token_(std::move(token)), hosts_(std::move(hosts))
{
}

// Compares every byte whatever the first difference, so the time taken tells nothing.
bool Access::token_matches(std::string_view candidate) const
{
    if (candidate.size() != token_.size())
        return false;
    unsigned char diff = 0;
    for (size_t i = 0; i < token_.size(); ++i)
        diff |= static_cast<unsigned char>(candidate[i] ^ token_[i]);
    return diff == 0;
}

std::string Access::cookie_name() const
{
    // Cookies do not tell ports apart: each server's cookie has a name of its own.
    return "tvoxsp_" + token_.substr(0, 8);
}

std::string Access::set_cookie() const
{
    return cookie_name() + "=" + token_ + "; Path=/; HttpOnly; SameSite=Strict";
}

Verdict Access::check(std::string_view host, std::string_view origin, std::string_view query_token,
                      std::string_view cookies) const
{
    bool host_ok = false;
    for (const std::string &h : hosts_)
        host_ok = host_ok || host == h;
    if (!host_ok)
        return Verdict::foreign_host;
    if (!origin.empty()) {
        bool origin_ok = false;
        for (const std::string &h : hosts_)
            origin_ok = origin_ok || origin == "http://" + h;
        if (!origin_ok)
            return Verdict::foreign_origin;
    }
    if (token_matches(query_token))
        return Verdict::allowed;
    const std::string prefix = cookie_name() + "=";
    while (!cookies.empty()) {
        const size_t end = cookies.find(';');
        std::string_view cookie = cookies.substr(0, end);
        while (!cookie.empty() && cookie.front() == ' ')
            cookie.remove_prefix(1);
        if (cookie.starts_with(prefix) && token_matches(cookie.substr(prefix.size())))
            return Verdict::allowed;
        cookies = end == std::string_view::npos ? std::string_view() : cookies.substr(end + 1);
    }
    return Verdict::no_token;
}

std::string random_token()
{
    std::array<unsigned char, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        return {};
    std::string token;
    for (unsigned char b : bytes) {
        std::array<char, 3> hex{};
        std::snprintf(hex.data(), hex.size(), "%02x", b);
        token += hex.data();
    }
    return token;
}

std::vector<std::string> local_hosts(const std::string &bind, int port)
{
    const std::string p = ":" + std::to_string(port);
    std::vector<std::string> hosts = {bind.find(':') != std::string::npos ? "[" + bind + "]" + p
                                                                          : bind + p};
    if (bind == "127.0.0.1" || bind == "::1")
        for (const char *loopback : {"127.0.0.1", "localhost", "[::1]"})
            if (hosts.front() != loopback + p)
                hosts.push_back(loopback + p);
    return hosts;
}

} // namespace tvoxsp::serve
