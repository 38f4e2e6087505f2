// kyrtctl: a controller for tools that registered a KYRT command channel.
// See UsageText() (command_line.cpp) and docs/kyrtctl.md.
//
// Exit statuses are the controller library's results (KyControllerStatus),
// plus kExitUsage for a bad command line or an unreadable payload file and
// kExitNotReady for a status that finds the channel not ready.
#include <climits>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "command_line.h"
#include "kyrt/controller.h"

namespace {

constexpr int kExitUsage = 1;
constexpr int kExitNotReady = 8;
static_assert(kExitUsage == KYCTL_INVALID_ARGUMENT);
static_assert(kExitNotReady > KYCTL_SYSTEM_ERROR);

using kyrtctl::CommandRequest;
using kyrtctl::Invocation;
using kyrtctl::PayloadSource;

std::string ChannelPath(const std::string& directory) {
  char path[PATH_MAX];
  if (!KyControllerLockFilePath(directory.c_str(), path, sizeof path)) return directory;
  return path;
}

// Prints what went wrong with the channel at path and returns the status
// as the exit status. errno still holds the failing call's cause.
int ReportFailure(KyControllerStatus status, const std::string& path, const Invocation& how) {
  const char* cause = std::strerror(errno);
  switch (status) {
    case KYCTL_NO_LOCK_FILE:
      std::fprintf(stderr,
                   "kyrtctl: no lock file: %s does not exist (no tool has registered a "
                   "command channel there)\n",
                   path.c_str());
      break;
    case KYCTL_STALE_LOCK_FILE:
      std::fprintf(stderr,
                   "kyrtctl: stale lock file: %s names a channel that no longer exists (the "
                   "tool has unregistered or ended)\n",
                   path.c_str());
      break;
    case KYCTL_PERMISSION_DENIED:
      std::fprintf(stderr,
                   "kyrtctl: permission denied: cannot use the command channel of %s (%s)\n",
                   path.c_str(), cause);
      break;
    case KYCTL_TIMED_OUT:
      std::fprintf(stderr,
                   "kyrtctl: timed out after %d ms waiting for the command area of %s (the area "
                   "lock stayed taken, the area was not ready or all %d slots stayed full)\n",
                   how.timeoutMilliseconds, path.c_str(), KYCMD_RECORD_COUNT);
      break;
    default:
      std::fprintf(stderr, "kyrtctl: %s: %s: %s\n", KyControllerStatusText(status), path.c_str(),
                   cause);
      break;
  }
  return status;
}

bool ReadWholeFile(const std::string& path, std::string* content) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  char buffer[4096];
  size_t read = 0;
  while ((read = std::fread(buffer, 1, sizeof buffer, file)) > 0) content->append(buffer, read);
  const bool complete = std::ferror(file) == 0;
  std::fclose(file);
  return complete;
}

// Replaces each --payload-file path by the file's bytes. Returns 0 or an
// exit status.
int LoadPayloadFiles(std::vector<CommandRequest>* commands) {
  for (CommandRequest& command : *commands) {
    if (command.payloadSource != PayloadSource::kFile) continue;
    std::string content;
    if (!ReadWholeFile(command.payload, &content)) {
      std::fprintf(stderr, "kyrtctl: cannot read payload file %s: %s\n", command.payload.c_str(),
                   std::strerror(errno));
      return kExitUsage;
    }
    command.payload.swap(content);
    command.payloadSource = PayloadSource::kText;
  }
  return 0;
}

int CheckPayloadSizes(const std::vector<CommandRequest>& commands) {
  for (const CommandRequest& command : commands) {
    if (command.payload.size() > KYCMD_PAYLOAD_SIZE) {
      std::fprintf(stderr, "kyrtctl: payload too large: %zu bytes, at most %d\n",
                   command.payload.size(), KYCMD_PAYLOAD_SIZE);
      return KYCTL_PAYLOAD_TOO_LARGE;
    }
  }
  return 0;
}

KyControllerCommand ToControllerCommand(const CommandRequest& request) {
  KyControllerCommand command{};
  command.code = request.code;
  command.argument1 = request.arguments[0];
  command.argument2 = request.arguments[1];
  command.argument3 = request.arguments[2];
  command.argument4 = request.arguments[3];
  command.payload = request.payload.data();
  command.payloadSize = request.payload.size();
  return command;
}

// Runs body on the opened channel and closes it; reports an opening failure.
template <typename Body>
int WithChannel(const Invocation& invocation, Body body) {
  KyController* controller = nullptr;
  const KyControllerStatus opened = KyControllerOpen(invocation.directory.c_str(), &controller);
  if (opened != KYCTL_OK)
    return ReportFailure(opened, ChannelPath(invocation.directory), invocation);
  const int status = body(controller);
  KyControllerClose(controller);
  return status;
}

int Send(Invocation invocation) {
  int status = LoadPayloadFiles(&invocation.commands);
  if (status == 0) status = CheckPayloadSizes(invocation.commands);
  if (status != 0) return status;
  std::vector<KyControllerCommand> commands;
  for (const CommandRequest& request : invocation.commands)
    commands.push_back(ToControllerCommand(request));
  return WithChannel(invocation, [&](KyController* controller) {
    const KyControllerStatus sent =
        KyControllerSend(controller, commands.data(), static_cast<int>(commands.size()),
                         invocation.timeoutMilliseconds);
    if (sent != KYCTL_OK) return ReportFailure(sent, KyControllerPath(controller), invocation);
    return 0;
  });
}

const char* StateText(const KyChannelDescription& description) {
  if (description.state != KYCMD_AREA_READY) return "not ready";
  if (description.attachedProcesses == 0) return "abandoned";
  return "ready";
}

int Status(const Invocation& invocation) {
  return WithChannel(invocation, [&](KyController* controller) {
    KyChannelDescription description{};
    const KyControllerStatus described = KyControllerDescribe(controller, &description);
    if (described != KYCTL_OK) {
      return ReportFailure(described, KyControllerPath(controller), invocation);
    }
    const char* state = StateText(description);
    std::printf("lock file: %s\n", KyControllerPath(controller));
    std::printf("state: %s\n", state);
    std::printf("shared memory id: %d\n", description.sharedMemoryId);
    std::printf("semaphore set id: %d\n", description.semaphoreSetId);
    std::printf("tool processes attached: %u\n", description.attachedProcesses);
    std::printf("pending commands: %d\n", description.pendingCount);
    std::printf("wake-up semaphore: %d\n", description.wakeUpValue);
    std::printf("area lock: %s (%d)\n", description.areaLockValue > 0 ? "free" : "taken",
                description.areaLockValue);
    return std::strcmp(state, "ready") == 0 ? 0 : kExitNotReady;
  });
}

void SleepSeconds(int seconds) {
  timespec left{seconds, 0};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

int Hold(const Invocation& invocation) {
  return WithChannel(invocation, [&](KyController* controller) {
    const KyControllerStatus taken =
        KyControllerAcquireArea(controller, invocation.timeoutMilliseconds);
    if (taken != KYCTL_OK) return ReportFailure(taken, KyControllerPath(controller), invocation);
    std::printf("holding the area lock of %s for %d s\n", KyControllerPath(controller),
                invocation.holdSeconds);
    std::fflush(stdout);
    SleepSeconds(invocation.holdSeconds);
    KyControllerReleaseArea(controller);
    return 0;
  });
}

}  // namespace

int main(int argc, char** argv) {
  Invocation invocation;
  std::string error;
  if (!kyrtctl::ParseCommandLine(argc, argv, &invocation, &error)) {
    std::fprintf(stderr, "kyrtctl: %s\nTry 'kyrtctl --help'.\n", error.c_str());
    return kExitUsage;
  }
  switch (invocation.action) {
    case kyrtctl::Action::kHelp:
      std::fputs(kyrtctl::UsageText(), stdout);
      return 0;
    case kyrtctl::Action::kSend:
      return Send(invocation);
    case kyrtctl::Action::kStatus:
      return Status(invocation);
    case kyrtctl::Action::kHold:
      return Hold(invocation);
  }
  return kExitUsage;
}
