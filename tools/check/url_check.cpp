#include "tools/check/url_check.h"

#include <curl/curl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "tools/check/daemon_user.h"
#include "tools/check/findings.h"
#include "tools/check/settings.h"

namespace {

constexpr int LEVEL_OF_DIALOGUE = 3;  // of log.http: from here on the log has what is sent

// One part of the address; empty if it is absent.
std::string part(CURLU* address, CURLUPart which)
{
    char* text = nullptr;
    if (curl_url_get(address, which, &text, 0) != CURLUE_OK)
        return "";
    const std::unique_ptr<char, void (*)(void*)> owner(text, curl_free);
    return text;
}

// Why libcurl does not find the host in a URL; null if it does.
const char* mistake_in_host(const std::string& url)
{
    const std::size_t scheme = url.find("://");
    const std::size_t begin = scheme == std::string::npos ? 0 : scheme + 3;
    const std::string authority = url.substr(begin, url.find_first_of("/?#", begin) - begin);
    const std::size_t at = authority.rfind('@');
    if (at != authority.find('@'))
        return "has a '@' in its user name or password; write it as %40";
    const std::string host = authority.substr(at == std::string::npos ? 0 : at + 1);
    if (!host.starts_with('[') && host.find(':') != host.rfind(':'))
        return "has an IPv6 address without brackets; write it as http://[ADDRESS]:PORT/PATH";
    return nullptr;
}

void check_scheme(const std::string& scheme, std::size_t line, Findings& findings)
{
    if (scheme != "http" && scheme != "https")
        findings.error(line, "elastic_url starts with ", scheme,
                       "://, which does not accept posts; start it with http:// or https://");
    const char* authorities = curl_version_info(CURLVERSION_NOW)->cainfo;
    if (scheme == "https" && authorities != nullptr && access(authorities, R_OK) != 0)
        findings.error(line, "no HTTPS server is trusted, because ", authorities,
                       " is missing; apt ", "install ca-certificates");
}

void check_secret(const Settings& settings, const std::string& config_path, const DaemonUser& user,
                  Findings& findings)
{
    const std::size_t line = settings.line(keys::ELASTIC_URL);
    struct stat info {};
    if (settings.number(keys::LOG_HTTP) >= LEVEL_OF_DIALOGUE)
        findings.warning(line, "the log shows the credentials in elastic_url; set log.http = 2 or ",
                         "less");
    if (stat(config_path.c_str(), &info) == 0 && (info.st_mode & S_IROTH) != 0)
        findings.warning(line, "all users can read the credentials in elastic_url; chgrp ",
                         user.group(), ' ', config_path, " && chmod 640 ", config_path);
}

}  // namespace

void check_url(const Settings& settings, const std::string& config_path, const DaemonUser& user,
               Findings& findings)
{
    const std::string url = settings.text(keys::ELASTIC_URL);
    const std::size_t line = settings.line(keys::ELASTIC_URL);
    if (url.empty())
        return;
    if (const char* mistake = mistake_in_host(url)) {
        findings.error(line, "elastic_url ", mistake);
        return;
    }
    const std::unique_ptr<CURLU, void (*)(CURLU*)> address(curl_url(), curl_url_cleanup);
    const CURLUcode result = curl_url_set(address.get(), CURLUPART_URL, url.c_str(),
                                          CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME);
    if (result != CURLUE_OK) {
        findings.error(line, "elastic_url is not a URL: ", curl_url_strerror(result),
                       "; write it as http://HOST:PORT/PATH");
        return;
    }
    if (url.find("://") == std::string::npos)
        findings.warning(line, "elastic_url has no scheme, so libcurl guesses one; start it with ",
                         "http:// or https://");
    check_scheme(part(address.get(), CURLUPART_SCHEME), line, findings);
    const std::string path = part(address.get(), CURLUPART_PATH);
    if (path.ends_with("/_bulk") || path.ends_with("/_bulk/"))
        findings.error(line, "elastic_url is a bulk interface, which refuses a JSON array; put a ",
                       "pipeline that accepts JSON over HTTP in front of the server");
    if (!part(address.get(), CURLUPART_USER).empty() ||
        !part(address.get(), CURLUPART_PASSWORD).empty())
        check_secret(settings, config_path, user, findings);
}
