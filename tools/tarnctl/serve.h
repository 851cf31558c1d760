#pragma once

/// `tarnctl serve`: an echo server with its log on standard output, until SIGINT or SIGTERM.
///
/// @param arguments  the command's own arguments, its name first.
/// @return the exit status: 0 ended by a signal, 1 the port could not be opened, 2 misuse.
int Serve(int count, char* arguments[]);
