// The daemon's OAuth2 credentials for the cloud service (RFC 6749).
//
// Exchanges a one-time authorization code for a refresh token, which it stores in a file, and the
// refresh token for access tokens, which stay in memory. Sends requests to the token endpoint only.
// Runs on the message loop and never blocks. All operations are virtual, so that a test can replace
// the object.
#pragma once

#include <memory>
#include <string>

#include "ap/common/last_response.h"
#include "base/callback.h"
#include "base/file_path.h"
#include "base/time.h"
#include "base/values.h"
#include "base/weak_ptr.h"
#include "kestle/http/transport.h"

namespace varelnos::ap {

// The identity provider's token endpoint, set at build time.
extern const std::string kTokenEndpointUrl;

class OAuth2Manager {
 public:
  // Reads the refresh token from its file and, if there is one, requests an access token.
  OAuth2Manager(const std::string& client_id, const std::string& client_secret,
                const std::string& scope, const base::FilePath& refresh_token_file,
                std::shared_ptr<kestle::http::Transport> transport);
  virtual ~OAuth2Manager() = default;
  OAuth2Manager(const OAuth2Manager&) = delete;
  OAuth2Manager& operator=(const OAuth2Manager&) = delete;

  [[nodiscard]] virtual bool HasRefreshToken() const;

  // Wipes the present tokens and exchanges the code for new ones. `callback` gets the outcome once:
  // immediately, with false, if another exchange is outstanding; never if the manager is destroyed
  // first.
  virtual void ExchangeAuthorizationCode(const std::string& code,
                                         const base::Callback<void(bool success)>& callback);

  // Empty if no token is held; the call may then start a refresh, whose token a later call returns.
  virtual std::string GetAccessToken();

  // False if the response rejects the access token (401). Then drops it and starts a refresh.
  virtual bool ValidateResponse(const kestle::http::Response& response);

  // Unlike `GetAccessToken`, starts no refresh.
  [[nodiscard]] bool HoldsAccessToken() const { return !access_token_.empty(); }
  // The last response of the token endpoint. The error is one of RFC 6749, a text of our own or of
  // the transport, and never a text of the response, so that every user may see it.
  [[nodiscard]] const LastResponse& last_response() const { return last_response_; }
  // `callback` runs at the end of each request, after all of its effects.
  void SetChangedCallback(const base::Callback<void()>& callback) { changed_callback_ = callback; }

 protected:
  // For fakes: no file, no transport.
  OAuth2Manager() : weak_ptr_factory_(this) {}

 private:
  void RefreshAccessToken();
  void OnRefreshTokenFetched(kestle::http::RequestID id,
                             std::unique_ptr<kestle::http::Response> response);
  void OnRefreshTokenError(kestle::http::RequestID id, const kestle::Error* error);
  void OnAccessTokenFetched(kestle::http::RequestID id,
                            std::unique_ptr<kestle::http::Response> response);
  void OnAccessTokenError(kestle::http::RequestID id, const kestle::Error* error);
  // Sets `last_response_`, with an error that the caller clears if it finds a token. Null if the
  // response is an error or not a JSON object.
  std::unique_ptr<base::DictionaryValue> ParseOAuth2Response(kestle::http::Response* response);
  [[nodiscard]] bool ReadTokens(kestle::http::Response* response);
  void FinishExchange(bool success);
  void NotifyChanged() const;

  std::string client_id_;
  std::string client_secret_;
  std::string scope_;
  std::string refresh_token_;
  std::string access_token_;
  base::Callback<void(bool)> pending_callback_;  // Null: no exchange is outstanding.
  base::TimeTicks last_refresh_time_;            // Start of the last refresh; null: none yet.
  base::FilePath refresh_token_file_;
  std::shared_ptr<kestle::http::Transport> transport_;
  LastResponse last_response_;
  base::Callback<void()> changed_callback_;
  base::WeakPtrFactory<OAuth2Manager> weak_ptr_factory_;
};

}  // namespace varelnos::ap
