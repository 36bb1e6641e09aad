#include "known_devices.h"

#include <curl/curl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>

namespace {
constexpr long connect_timeout_s = 5;
std::mutex file_mutex;

// "HOST:PORT" of an https URL (the port given or 443); empty for another scheme.
std::string device_key(const std::string& url) {
    std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parts(curl_url(), curl_url_cleanup);
    char* scheme = nullptr;
    char* host = nullptr;
    char* port = nullptr;
    std::string key;
    if (curl_url_set(parts.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
        curl_url_get(parts.get(), CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
        std::string(scheme) == "https" &&
        curl_url_get(parts.get(), CURLUPART_HOST, &host, 0) == CURLUE_OK &&
        curl_url_get(parts.get(), CURLUPART_PORT, &port, CURLU_DEFAULT_PORT) == CURLUE_OK) {
        key = std::string(host) + ":" + port;
    }
    curl_free(scheme);
    curl_free(host);
    curl_free(port);
    return key;
}

// The key the device shows now: a TLS handshake that trusts anything, for
// its certificate only; no request is sent.
outcome shown_pin(const std::string& url, std::string& pin) {
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    char error[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT, connect_timeout_s);
    curl_easy_setopt(curl.get(), CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_CERTINFO, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl.get(), CURLOPT_SSL_VERIFYHOST, 0L);
    const CURLcode code = curl_easy_perform(curl.get());
    if (code != CURLE_OK) {
        return {EXIT_UNREACHABLE, std::string("device unreachable: ") +
                                      (error[0] ? error : curl_easy_strerror(code))};
    }
    curl_certinfo* chain = nullptr;
    curl_easy_getinfo(curl.get(), CURLINFO_CERTINFO, &chain);
    if (chain != nullptr && chain->num_of_certs > 0) {
        for (curl_slist* field = chain->certinfo[0]; field != nullptr; field = field->next) {
            const std::string text = field->data;
            if (text.compare(0, 5, "Cert:") == 0) pin = public_key_pin(text.substr(5));
        }
    }
    if (pin.empty()) return {EXIT_UNEXPECTED_ANSWER, "the device showed no readable certificate"};
    return {};
}

// The recorded pin of `key`, or empty.
std::string recorded_pin(const std::string& file, const std::string& key) {
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string host, pin;
        if (fields >> host >> pin && host == key) return pin;
    }
    return "";
}
}  // namespace

std::string public_key_pin(const std::string& pem) {
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
    std::unique_ptr<X509, decltype(&X509_free)> cert(
        PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr), X509_free);
    if (!cert) return "";
    unsigned char* der = nullptr;
    const int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(cert.get()), &der);
    if (length <= 0) return "";
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(der, static_cast<size_t>(length), digest);
    OPENSSL_free(der);
    unsigned char text[4 * ((SHA256_DIGEST_LENGTH + 2) / 3) + 1];
    EVP_EncodeBlock(text, digest, SHA256_DIGEST_LENGTH);
    return "sha256//" + std::string(reinterpret_cast<char*>(text));
}

outcome known_device_pin(const std::string& url, const std::string& file, std::string& pin,
                         update_report& report) {
    const std::string key = device_key(url);
    if (key.empty()) return {};  // plain HTTP: no key to know
    std::string shown;
    const outcome probe = shown_pin(url, shown);
    if (!probe.ok()) return probe;
    std::lock_guard<std::mutex> hold(file_mutex);
    const std::string known = recorded_pin(file, key);
    if (known.empty()) {
        std::ofstream out(file, std::ios::app);
        if (!(out << key << ' ' << shown << '\n' << std::flush)) {
            return {EXIT_USAGE, "cannot write the known-devices file " + file};
        }
        report.step("first contact: recorded the device's key " + shown + " in " + file);
    } else if (known != shown) {
        return {EXIT_KEY_CHANGED, "the device's key has changed: " + file + " records " + known +
                                      " for " + key + ", the device now shows " + shown +
                                      "; nothing was sent (if the device has a new key on "
                                      "purpose, delete that line)"};
    }
    pin = shown;
    return {};
}
