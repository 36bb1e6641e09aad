#pragma once

// The CGI face of the program: one process per HTTP request.

// Installs the termination handler, classifies the request by
// REQUEST_METHOD and QUERY_STRING, carries it out and returns the exit value.
int run_cgi_mode();
// Removes the update lock and ends the process with status 0.
void termination_handler(int signal_number);
