#pragma once

#include <unistd.h>
#include <string>

#include "upload/input_stream.h"
#include "upload/upload_request.h"
#include "upload/upload_watchdog.h"

// Receives one upload: checks the request's CGI variables, finds the file
// part of the multipart body and copies the rest of the input into
// "/tmp/updater-cgi-temp.pkg", then checks and cuts the closing delimiter.
// The file part must be the last part of the form. The package is never held
// in memory: it passes through one 1 MiB transfer buffer.
class uploader {
  public:
    // The body is read from `input_fd`: standard input in production.
    explicit uploader(int input_fd = STDIN_FILENO);

    // 0 when the package file is complete; 1 when the upload failed here;
    // a negative code when the update was already ended (bad request -2,
    // no memory for the transfer buffer -7).
    int run();
    // Reads one line of the form, without its LF and one trailing CR.
    bool read_line(std::string& line);
    // Checks CONTENT_LENGTH and CONTENT_TYPE and fills the request; 0, or the
    // result of ending the update with "bad/malformed http header".
    int parse_cgi_request(upload_request& request);

  private:
    int reject_request();
    bool find_file_part();
    bool skip_part_header();
    bool copy_body(int package, char* buffer);
    int check_and_cut_end(int package, char* buffer, const std::string& boundary, bool complete);

    input_stream input;
    upload_watchdog watchdog;
};
