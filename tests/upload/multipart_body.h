#pragma once
// Builds request bodies shaped like a browser's file form.

#include <random>
#include <string>

inline const std::string test_boundary = "----WebKitFormBoundary7MA4YWxkTrZu0gW";

inline std::string file_part_header(const std::string& boundary = test_boundary) {
    return "--" + boundary +
           "\r\nContent-Disposition: form-data; name=\"package\"; filename=\"fw.pkg\"\r\n"
           "Content-Type: application/octet-stream\r\n\r\n";
}

inline std::string closing_delimiter(const std::string& boundary = test_boundary) {
    return "\r\n--" + boundary + "--\r\n";
}

inline std::string text_field(const std::string& name, const std::string& value,
                              const std::string& boundary = test_boundary) {
    return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" +
           value + "\r\n";
}

inline std::string form_with_file(const std::string& content,
                                  const std::string& boundary = test_boundary) {
    return file_part_header(boundary) + content + closing_delimiter(boundary);
}

// Random bytes salted with everything that could confuse a line reader.
inline std::string awkward_content(size_t size, unsigned seed = 7) {
    std::mt19937 random(seed);
    std::string content;
    content.reserve(size + 256);
    const std::string traps[] = {"\r\n",
                                 "\n",
                                 "\r",
                                 "--" + test_boundary + "\r\n",
                                 "\r\n--" + test_boundary + "--\r\n",
                                 "Content-Disposition: form-data; filename=\"x\"\r\n\r\n",
                                 std::string(1, '\0')};
    while (content.size() < size) {
        if (random() % 64 == 0) {
            content += traps[random() % 7];
        } else {
            content += static_cast<char>(random());
        }
    }
    content.resize(size);
    return content;
}
