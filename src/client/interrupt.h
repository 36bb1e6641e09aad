#pragma once

// Ctrl-C and termination: the first SIGINT, SIGTERM or SIGHUP asks every
// device's update to stop where it is safe (an upload is cancelled and the
// device left free); a second one ends the program at once.
void catch_interrupts();
bool interrupted();
