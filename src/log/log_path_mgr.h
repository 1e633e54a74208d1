// Where the self log lies and how its place is made from the configuration ("logAgentFileDir").
// LogPathInit runs once, in the log component's start, and LogPathRelease in its end, both on
// the main thread; other threads may write to the self log meanwhile.
#pragma once

// Reads the configuration, makes the directories and sends the self log there. Whatever fails
// leaves the self log at its default place, and costs one warning on standard output.
void LogPathInit();

// Frees the configuration; the self log is back at its default place.
void LogPathRelease();

// Reads "logWorkspace" and checks the directory; -1 when it can't be used.
[[nodiscard]] int LogWorkspaceInit();
// The directory in use, "/usr/slog" at first.
[[nodiscard]] const char* LogWorkspacePath();
