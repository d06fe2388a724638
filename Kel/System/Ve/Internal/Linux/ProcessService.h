#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/ProcessServiceBase.h>

#include <sys/types.h>

#include <vector>

namespace Kel::System::Ve::Internal::Linux {

/// The process service on Linux.
class KEL_API ProcessService final : public ProcessServiceBase {
public:
    ProcessService();

    void Start(const BasicString& workingDirectory, const BasicString& executable,
               const BasicString& parameters) override;
    void Kill() override;
    bool HasExited() const override;
    void StartBlocking(const BasicString& workingDirectory, const BasicString& executable,
                       const BasicString& parameters, int& exitCode) override;
    void StartDaemon(const BasicString& workingDirectory, const BasicString& executable,
                     const BasicString& parameters) override;

    // As in ProcessServiceBase.
    static void SetupCurrentProcess(int cpu);
    static BasicString GetCurrentName();

    static bool IsPathRelative(const BasicString& path);

    /// Returns a path from the root; a relative one is taken from the current working directory. Returns the
    /// relative path when that has been removed or cannot be reached from the root.
    static BasicString GetAbsolutePath(const BasicString& path);

    /// Returns the arguments of execvp, of at least 1024 entries, null after the last argument. They point into
    /// `executable`, which is the first, and into `parameters`, in which each separator is overwritten by a null.
    static std::vector<char*> ParseParameters(const BasicString& executable, BasicString& parameters);

private:
    void Start(const BasicString& workingDirectory, const BasicString& executable, const BasicString& parameters,
               bool asDaemon);
    void EnsureHasNotStarted() const;
    static void EnsureExecutableExists(const BasicString& path);

    struct Program;

    // These run in the child, which shares this process's memory: they allocate nothing, and change nothing of it.
    static int ExecuteProgram(void* program);
    static bool ChangeWorkingDirectory(const char* path);
    static void Daemonize();

    // 0 when there is no child, -1 when it could not be made. Forgotten once the child is waited for: another process
    // may have got the number.
    mutable pid_t processId = 0;
};

}  // namespace Kel::System::Ve::Internal::Linux
