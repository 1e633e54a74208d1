// The device's collection script, "/var/prof_collect.sh", which drives perf for two jobs: it
// records the control CPU and counts the last-level cache. Here is what both jobs and the thread
// that resolves recordings do with it: start it, end what it started, send what it wrote.
//
// The script runs through sudo, as a child with one environment variable, and is told what to do
// by its arguments alone. It writes below the device's perf data directory.
//
// Free functions without state, on any thread. No wait here is without an end: the jobs call from
// within the registry's lock, where a script that hangs would hold up the jobs of all devices.
#pragma once

#include <chrono>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "profiling/collect/collection_register.h"
#include "profiling/datapath/chunk.h"

namespace Analysis::Nedra::JobWrapper {

inline constexpr char kScriptSudo[] = "sudo";
inline constexpr char kScriptPath[] = "/var/prof_collect.sh";
inline constexpr char kScriptEnvironment[] = "PATH=/usr/bin:/usr/sbin:/var";

// How long a run that should end by itself may take before it is killed.
inline constexpr std::chrono::seconds kScriptPatience{30};

// ---- What the script is given --------------------------------------------------------------

// Whether `text` holds letters, digits and "_" alone: nothing that could add an argument to a
// command. True for an empty text.
[[nodiscard]] bool IsScriptWord(const std::string& text);
// Makes the directory that the script writes to; false with the reason logged.
[[nodiscard]] bool MakeScriptDir(const std::string& dir);
// Makes an empty file, or empties it.
[[nodiscard]] bool MakeEmptyFile(const std::string& path);

// ---- Running it ----------------------------------------------------------------------------

// Starts a command, which is cut into `words` with the program in front, and does not wait.
// Standard output and error go to `outputFile`, unless that is empty; `environment` is one
// "NAME=value". 0 with the child in `pid`, who has to be waited for; or -1, and `pid` stays.
[[nodiscard]] int StartScript(const std::vector<std::string>& words, const std::string& outputFile,
                              const std::string& environment, int& pid);
// Waits for a child; after `patience` it is killed, and that logged. 0 with its end in
// `exitCode`; -1 when there is no such child or not even that ends it.
[[nodiscard]] int WaitScript(int pid, std::chrono::milliseconds patience, int& exitCode);
// Starts the script with these arguments, its own path not among them, and waits as above.
[[nodiscard]] int RunScript(const std::vector<std::string>& arguments,
                            const std::string& outputFile, int& exitCode);
// Ends everything that the script has started on this device, whichever job started it, and logs
// the outcome. What RunScript answered: the exit code is for the log.
[[nodiscard]] int KillScript();

// ---- What it wrote -------------------------------------------------------------------------

// Sends the rest of `in` to the host as chunks of the file `fileName`, each one byte shorter than
// `buffer`; the last one may be empty, since a stream ends only on the read behind its end.
// `failed` is called for each chunk that could not be sent, and the next one is tried. The bytes
// read. Without a job, none.
long long UploadScriptFile(std::istream& in, analysis::nedra::common::memory::Chunk& buffer,
                           const std::string& fileName,
                           const std::shared_ptr<analysis::nedra::message::JobContext>& jobCtx,
                           const std::string& jobId, const std::function<void()>& failed);

}  // namespace Analysis::Nedra::JobWrapper
