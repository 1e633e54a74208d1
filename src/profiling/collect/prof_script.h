// The device's collection script, "/var/prof_collect.sh", which drives perf for two jobs: it
// records the control CPU and counts the last-level cache. Here is what both jobs and the thread
// that resolves recordings do with it: start it, end what it started, send what it wrote.
//
// The script runs through sudo, as a child with one environment variable, and is told what to do
// by its arguments alone. It writes below the device's perf data directory.
//
// A child is waited for until a limit that its caller sets, so that a script that hangs holds up
// the end of a job for a bounded time. On a card the child is sudo, which belongs to root: an
// account that is not root may not kill it. Such a child is left alone and remembered, and is
// reaped by one of the next calls, when it has ended after all.
//
// Free functions on any thread; what they remember, and their order, have locks of their own.
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

// How long the end of a job waits for its script.
inline constexpr std::chrono::seconds kScriptPatience{30};

// ---- What the script is given --------------------------------------------------------------

// Makes the directory that the script writes to; false with the reason logged.
[[nodiscard]] bool MakeScriptDir(const std::string& dir);
// Makes an empty file, or empties it.
[[nodiscard]] bool MakeEmptyFile(const std::string& path);

// ---- Running it ----------------------------------------------------------------------------

// Whether a wait has lasted long enough. It is asked again and again on the thread that waits.
using ScriptLimit = std::function<bool()>;
// A limit that is reached `patience` after this call, however many waits share it.
[[nodiscard]] ScriptLimit LimitAfter(std::chrono::milliseconds patience);

// Starts a recording: a command, which is cut into `words` with the program in front. Does not wait
// for it, but for the end of a KillScript that is under way.
// Standard output and error go to `outputFile`, unless that is empty; `environment` is one
// "NAME=value". 0 with the child in `pid`, who has to be waited for; or -1, and `pid` stays.
[[nodiscard]] int StartScript(const std::vector<std::string>& words, const std::string& outputFile,
                              const std::string& environment, int& pid);
// Waits for a child. When it has not ended at the limit it is killed, as far as the account may,
// and a line tells which. 0 with its end in `exitCode`, which is 128 and the signal for one that
// was killed; -1 when there is no such child or it has not ended: then it is remembered.
[[nodiscard]] int WaitScript(int pid, const ScriptLimit& isOver, int& exitCode);
// Starts the script with these arguments, its own path not among them, and waits as above.
[[nodiscard]] int RunScript(const std::vector<std::string>& arguments,
                            const std::string& outputFile, const ScriptLimit& isOver,
                            int& exitCode);
// Ends everything that the script has started on this device, whichever job started it, and logs
// the outcome. What RunScript answered: the exit code is for the log.
[[nodiscard]] int KillScript(const ScriptLimit& isOver);
// Reaps the remembered children that have ended, without waiting. Every start of a script does,
// and every Init of the two jobs.
void ReapScripts();

// ---- What it wrote -------------------------------------------------------------------------

// Sends the rest of `in` to the host as chunks of the file `fileName`, each one byte shorter than
// `buffer`; the last one may be empty, since a stream ends only on the read behind its end.
// `failed` is called for each chunk that could not be sent and says whether the next one is tried.
// The bytes read. Without a job, none.
long long UploadScriptFile(std::istream& in, analysis::nedra::common::memory::Chunk& buffer,
                           const std::string& fileName,
                           const std::shared_ptr<analysis::nedra::message::JobContext>& jobCtx,
                           const std::string& jobId, const std::function<bool()>& failed);

}  // namespace Analysis::Nedra::JobWrapper
