// A worker that gives up every right it does not need once it is connected, and whose jobs try to
// get out: the model of docs/security.md.
#include "nqWorker.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr uid_t nobody = 65'534;
constexpr int stepMs = 1'000;

// What a connected worker asks of the kernel: its pipe, memory, the clock, and its own end.
constexpr std::uint32_t allowedCalls[] = {
    SYS_sendto,   SYS_recvfrom,        SYS_poll,          SYS_ppoll,
    SYS_shutdown, SYS_close,           SYS_brk,           SYS_mmap,
    SYS_munmap,   SYS_mremap,          SYS_madvise,       SYS_mprotect,
    SYS_futex,    SYS_getrandom,       SYS_clock_gettime, SYS_write,
    SYS_geteuid,  SYS_restart_syscall, SYS_rt_sigreturn,  SYS_rt_sigprocmask,
    SYS_exit,     SYS_exit_group};

constexpr sock_filter statement(std::uint32_t code, std::uint32_t value)
{
    return {static_cast<std::uint16_t>(code), 0, 0, value};
}

// Goes on with the next statement if the value read last is `value`, else skips it.
constexpr sock_filter unlessEqualSkipOne(std::uint32_t value)
{
    return {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, value};
}

/// Every other call fails with EPERM, which a job can report.
bool filterCalls()
{
    const sock_filter allow = statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    const sock_filter refuse = statement(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM);
    const auto load = [](std::size_t offset) {
        return statement(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
    };

    std::vector<sock_filter> filter{load(offsetof(seccomp_data, arch))};
    // Another architecture's calls have other numbers.
    filter.push_back({BPF_JMP | BPF_JEQ | BPF_K, 1, 0, AUDIT_ARCH_X86_64});
    filter.push_back(statement(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS));
    filter.push_back(load(offsetof(seccomp_data, nr)));
    for (const std::uint32_t call : allowedCalls) {
        filter.push_back(unlessEqualSkipOne(call));
        filter.push_back(allow);
    }
    filter.push_back(refuse);
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    return ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

/// Hard limits, which nothing in this process can raise again.
bool limitTo(int resource, rlim_t value)
{
    const rlimit limit{value, value};
    return ::setrlimit(static_cast<__rlimit_resource>(resource), &limit) == 0;
}

/// Both ends of the pipe have compared their users when it was connected, and not since. A worker
/// of root may therefore become somebody else now, and not earlier.
bool becomeNobody()
{
    if (::geteuid() != 0)
        return true;
    return ::setgroups(0, nullptr) == 0 && ::setresgid(nobody, nobody, nobody) == 0 &&
           ::setresuid(nobody, nobody, nobody) == 0;
}

bool confine()
{
    return becomeNobody() && limitTo(RLIMIT_FSIZE, 0) && limitTo(RLIMIT_CORE, 0) &&
           ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && filterCalls();
}

std::string outcome(int result)
{
    return result >= 0 ? "done" : std::strerror(errno);
}

class SandboxedWorker : public nq::nqWorker {
public:
    using nqWorker::nqWorker;

    void processJob(std::vector<char>& job, std::vector<char>& result) override
    {
        const std::string answer = perform({job.data(), job.size()});
        result.assign(answer.begin(), answer.end());
    }

private:
    static std::string perform(std::string_view job)
    {
        if (job == "read a file")
            return outcome(::open("/etc/passwd", O_RDONLY | O_CLOEXEC));
        if (job == "open a socket")
            return outcome(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (job == "start a process")
            return outcome(::fork());
        if (job == "signal the host")
            return outcome(::kill(::getppid(), 0));
        if (job == "tell the user")
            return std::to_string(::geteuid());
        if (job == "hang")
            for (;;)
                ::poll(nullptr, 0, -1);
        return std::string(job);
    }
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return EXIT_FAILURE;
    SandboxedWorker worker(argv[1]);
    if (!confine())
        return EXIT_FAILURE;
    while (!worker.hasFinished())
        worker.processWorker(stepMs);
    return EXIT_SUCCESS;
}
