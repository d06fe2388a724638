#pragma once

#include <Kel/Core/BasicString.h>
#include <Kel/Core/Export.h>
#include <Kel/System/Ve/Internal/TraceControllerServiceBase.h>

#include <list>

namespace Kel::System::Ve::Internal::Linux {

/// The trace controller service on Linux, on liblttng-ctl.
class KEL_API TraceControllerService final : public TraceControllerServiceBase {
public:
    TraceControllerService();

    bool IsSessionDaemonAlive() const override;
    bool LoadSessionConfiguration(const BasicString& sessionName, const BasicString& inputUrl) override;
    std::list<BasicString> ListSessions() override;
    bool StartSession(const BasicString& sessionName) override;
    bool StopSession(const BasicString& sessionName) override;
    bool DestroySession(const BasicString& sessionName) override;
    bool IsSessionInSnapshotMode(const BasicString& sessionName) override;
    bool IsSessionEnabled(const BasicString& sessionName) override;
    bool RecordSessionSnapshot(const BasicString& sessionName) override;
    std::list<BasicString> ListSessionOutputs(const BasicString& sessionName) override;
};

}  // namespace Kel::System::Ve::Internal::Linux
