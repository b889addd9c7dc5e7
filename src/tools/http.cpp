// SPDX-License-Identifier: GPL-3.0-only
// Publishing over HTTP with libcurl. A key is a secret, so no message contains one.
#include "tools/http.h"

#include <curl/curl.h>

#include <cstdlib>
#include <memory>

#include "util/jsonref.h"

namespace {

constexpr size_t kMostAnswer = 65536;

struct StatusText {
    long status;
    const char* text;
};

constexpr StatusText kStatusTexts[] = {
    {.status = 400,
     .text = "the server rejects this text: it is empty, or contains characters that XML cannot carry"},
    {.status = 404, .text = "no endpoint has this key; `pubsubctl endpoint key` prints the right one"},
    {.status = 405, .text = "this is not an address to publish to; check the part before the key"},
    {.status = 413, .text = "the text is too long for the server; publish a reference to it instead"},
    {.status = 429, .text = "too many items for this key"},
    {.status = 503, .text = "the server cannot store more items at the moment"},
};

std::string errorText(const HttpAnswer& answer) {
    std::string text = "the server answered with status " + std::to_string(answer.status);
    for (const StatusText& entry : kStatusTexts) {
        if (entry.status == answer.status)
            text = entry.text;
    }
    const std::string reason = textMember(parseWholeJson(answer.body).get(), "error");
    if (!reason.empty())
        text += " (" + reason + ")";
    if (!answer.retryAfter.empty())
        text += "; try again in " + answer.retryAfter + " s";
    return text;
}

struct CurlEnd {
    void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

size_t onBody(char* data, size_t size, size_t count, void* context) {
    auto& body = static_cast<HttpAnswer*>(context)->body;
    if (body.size() + size * count > kMostAnswer)
        return 0;
    body.append(data, size * count);
    return size * count;
}

std::string headerOf(CURL* curl, const char* name) {
    curl_header* header = nullptr;
    return curl_easy_header(curl, name, 0, CURLH_HEADER, -1, &header) == CURLHE_OK ? header->value : "";
}

void prepare(CURL* curl, const std::string& url, const std::string& text, unsigned timeoutSeconds) {
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, static_cast<long>(timeoutSeconds));
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, text.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(text.size()));
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
    if (const char* authorities = std::getenv("PUBSUB_CA_FILE"))
        curl_easy_setopt(curl, CURLOPT_CAINFO, authorities);
}

Reply failure(CURLcode code, const char* details, unsigned timeoutSeconds) {
    const std::string reason = *details ? details : curl_easy_strerror(code);
    if (code == CURLE_OPERATION_TIMEDOUT)
        return {Exit::TimedOut, "",
                "the server did not answer within " + std::to_string(timeoutSeconds) +
                    " s; --timeout SECONDS waits longer. The item may have been stored nevertheless"};
    if (code == CURLE_URL_MALFORMAT || code == CURLE_UNSUPPORTED_PROTOCOL)
        return {Exit::Usage, "", "this is not an HTTP address: " + reason};
    return {Exit::NotConnected, "", "the server cannot be reached: " + reason};
}

}  // namespace

bool publishUrl(const std::string& target, const std::string& base, std::string& url, std::string& problem) {
    static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    url = target;
    if (target.starts_with("http://") || target.starts_with("https://"))
        return true;
    if (target.empty() || target.find_first_not_of(kLetters) != std::string::npos)
        problem = "a key consists of letters, digits, - and _; give a key or a full http:// URL";
    else if (base.empty())
        problem =
            "the address to publish to is unknown; give --url, or set PUBSUB_HTTP_URL to the URL before the "
            "key";
    else
        url = base + (base.ends_with('/') ? "" : "/") + target;
    return problem.empty();
}

Reply judgeHttp(const HttpAnswer& answer) {
    if (answer.status == 201)
        return {Exit::Ok, answer.body, ""};
    const JsonRef body = parseWholeJson(answer.body);
    const bool object = json_object_is_type(body.get(), json_type_object);
    return {Exit::Refused, object ? answer.body : "", errorText(answer)};
}

Reply postItem(const std::string& url, const std::string& text, unsigned timeoutSeconds,
               const std::vector<std::string>& fields) {
    const std::unique_ptr<CURL, CurlEnd> curl(curl_easy_init());
    // No waiting for "100 Continue" before the body, and no default content type.
    const std::unique_ptr<curl_slist, CurlEnd> headers(curl_slist_append(nullptr, "Expect:"));
    curl_slist_append(headers.get(), "Content-Type: text/plain; charset=utf-8");
    for (const std::string& field : fields)
        curl_slist_append(headers.get(), field.c_str());
    HttpAnswer answer;
    char details[CURL_ERROR_SIZE] = "";
    prepare(curl.get(), url, text, timeoutSeconds);
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer);
    curl_easy_setopt(curl.get(), CURLOPT_ERRORBUFFER, details);
    const CURLcode code = curl_easy_perform(curl.get());
    if (code != CURLE_OK)
        return failure(code, details, timeoutSeconds);
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &answer.status);
    answer.retryAfter = headerOf(curl.get(), "Retry-After");
    return judgeHttp(answer);
}
