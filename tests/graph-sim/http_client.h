// Plain HTTP requests by libcurl, and raw sockets where libcurl is too polite.
#pragma once

#include <curl/curl.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace graph_sim {

struct http_answer {
    CURLcode result = CURLE_OK;
    long status = 0;
    std::string body;
    std::map<std::string, std::string> headers; // names in lower case
    long connections = 0;                       // opened for this request
};

// One libcurl handle: connections and TLS sessions are kept between its requests.
class http_client {
  public:
    explicit http_client(std::string certificate_file = {})
        : handle_(curl_easy_init()), certificate_(std::move(certificate_file))
    {
    }

    http_answer get(const std::string &url, const std::vector<std::string> &headers = {})
    {
        return send("GET", url, headers, {});
    }

    http_answer send(const std::string &method, const std::string &url,
                     const std::vector<std::string> &headers, const std::string &body)
    {
        CURL *curl = handle_.get();
        curl_easy_reset(curl);
        http_answer got;
        std::unique_ptr<curl_slist, list_release> list;
        for (const std::string &header : headers) {
            list.reset(curl_slist_append(list.release(), header.c_str()));
        }
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list.get());
        curl_easy_setopt(curl, CURLOPT_PATH_AS_IS, 1L);
        curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
        curl_easy_setopt(curl, CURLOPT_TIMEOUT, 60L);
        curl_easy_setopt(curl, CURLOPT_FRESH_CONNECT, fresh_connections ? 1L : 0L);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &take_body);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &got.body);
        curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &take_header);
        curl_easy_setopt(curl, CURLOPT_HEADERDATA, &got.headers);
        if (!certificate_.empty()) {
            curl_easy_setopt(curl, CURLOPT_CAINFO, certificate_.c_str());
        }
        if (!body.empty()) {
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(body.size()));
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
        }
        got.result = curl_easy_perform(curl);
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &got.status);
        curl_easy_getinfo(curl, CURLINFO_NUM_CONNECTS, &got.connections);
        return got;
    }

    bool fresh_connections = false;

  private:
    struct handle_release {
        void operator()(CURL *handle) const { curl_easy_cleanup(handle); }
    };
    struct list_release {
        void operator()(curl_slist *list) const { curl_slist_free_all(list); }
    };

    static size_t take_body(char *bytes, size_t size, size_t count, void *target)
    {
        static_cast<std::string *>(target)->append(bytes, size * count);
        return size * count;
    }

    static size_t take_header(char *bytes, size_t size, size_t count, void *target)
    {
        std::string line(bytes, size * count);
        const size_t colon = line.find(':');
        if (colon != std::string::npos) {
            std::string name = line.substr(0, colon);
            for (char &c : name) {
                c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
            }
            std::string value = line.substr(colon + 1);
            value.erase(0, value.find_first_not_of(' '));
            value.erase(value.find_last_not_of("\r\n") + 1);
            (*static_cast<std::map<std::string, std::string> *>(target))[name] = value;
        }
        return size * count;
    }

    std::unique_ptr<CURL, handle_release> handle_;
    std::string certificate_;
};

} // namespace graph_sim
