// Provisioning of credentials: the cloud sends a command with a one-time authorization code, and
// reads in the device's state whether the daemon needs one.

#include <cstdint>

#include "ap/pelmor/daemon.h"
#include "base/logging.h"
#include "base/time.h"

namespace varelnos::ap {

using org::quintara::Larder::CommandProxy;
using org::quintara::Larder::ManagerProxy;

namespace {

constexpr char kSetCredentialsCommand[] = "_apCredentials._setPelmorCredentials";
constexpr char kAuthorizationCode[] = "_authorizationCode";
constexpr char kStateQueued[] = "queued";
constexpr char kStateInProgress[] = "inProgress";

constexpr char kCredentialsState[] = "_apCredentials._pelmorCredentials";
constexpr char kProvisioned[] = "_provisioned";
constexpr char kNonce[] = "_nonce";

// Empty if the command has none or it is not a string.
std::string GetAuthorizationCode(const CommandProxy& command) {
  const kestle::VariantDictionary& parameters = command.Parameters();
  const auto parameter = parameters.find(kAuthorizationCode);
  if (parameter == parameters.end()) return {};
  const auto* const code = parameter->second.TryGet<std::string>();
  return code ? *code : std::string();
}

}  // namespace

void Daemon::OnManagerAdded(ManagerProxy* /*manager*/) {
  UpdateCredentialsState(oauth2_manager_->HasRefreshToken());
}

void Daemon::OnCommandAdded(CommandProxy* command) {
  if (command->State() != kStateQueued && command->State() != kStateInProgress) return;
  if (command->Name() != kSetCredentialsCommand) return;
  const std::string code = GetAuthorizationCode(*command);
  if (code.empty()) {
    LOG(ERROR) << "No pelmor authorization code provided";
    // Here and below, a failure to update the command is ignored: the exchange does not depend on
    // it.
    (void)command->Abort("", "", nullptr);
    return;
  }
  // Shows the cloud that the command is in progress.
  (void)command->SetProgress({}, nullptr);
  oauth2_manager_->ExchangeAuthorizationCode(
      code, base::Bind(&Daemon::OnCredentialsProvisioned, base::Unretained(this),
                       command->GetObjectPath(), command->GetWeakPtr()));
  // The exchange has wiped the old tokens.
  UpdateStatus();
}

void Daemon::OnCredentialsProvisioned(const dbus::ObjectPath& command_path,
                                      const base::WeakPtr<CommandProxy>& command, bool success) {
  UpdateCredentialsState(success);
  const auto& commands = object_manager_proxy_->GetCommandProxies();
  const auto present = commands.find(command_path);
  // Another command may have its path by now.
  if (present == commands.end() || present->second.get() != command.get()) {
    LOG(WARNING) << "QTD command is no longer present";
  } else if (success) {
    (void)present->second->Complete({}, nullptr);
  } else {
    (void)present->second->Abort("", "", nullptr);
  }
}

void Daemon::UpdateCredentialsState(bool provisioned) {
  // The nonce makes each state of an unprovisioned device differ from the one before. It may wrap
  // in 2038.
  const auto nonce = static_cast<int32_t>(provisioned ? 0 : base::Time::Now().ToTimeT());
  const kestle::VariantDictionary state = {
      {kCredentialsState, kestle::VariantDictionary{{kProvisioned, provisioned}, {kNonce, nonce}}}};
  const auto& managers = object_manager_proxy_->GetManagerProxies();
  if (managers.empty() || !managers.begin()->second->UpdateState(state, nullptr))
    LOG(WARNING) << "Failed to write QTD state";
}

}  // namespace varelnos::ap
