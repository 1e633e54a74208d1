// The life of the process: lock, component start, serving, stop in order.
//
// The main thread runs all of it and spends its life in the server creation loop. SIGTERM and
// SIGINT ask that loop to end; a second one ends the process at once. SIGPIPE and SIGXFSZ
// are ignored. The process stays in the foreground of whoever started it and reads no arguments.
#pragma once

// Runs the daemon. 0 after a normal end, -1 when the start fails. Called once, by main.
[[nodiscard]] int IdeDaemonRun();
