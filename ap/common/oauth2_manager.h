// The daemon's OAuth2 credentials towards the cloud service (RFC 6749).
//
// Turns a one-time authorization code into a refresh token, keeps that in a file so that it
// survives restarts, and trades it for access tokens, which stay in memory. Talks to one place
// only, the token endpoint that the build names. Runs on the message loop; nothing blocks. All
// operations are virtual, so that a substitute can stand in.
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

// The identity provider's token endpoint, fixed when the daemon is built.
extern const std::string kTokenEndpointUrl;

class OAuth2Manager {
 public:
  // Reads the refresh token from its file and, when there is one, starts to fetch an access token.
  OAuth2Manager(const std::string& client_id, const std::string& client_secret,
                const std::string& scope, const base::FilePath& refresh_token_file,
                std::shared_ptr<kestle::http::Transport> transport);
  virtual ~OAuth2Manager() = default;
  OAuth2Manager(const OAuth2Manager&) = delete;
  OAuth2Manager& operator=(const OAuth2Manager&) = delete;

  virtual bool HasRefreshToken() const;

  // Trades the code for tokens, forgetting those held until now. `callback` gets the outcome once:
  // false at once when another exchange is outstanding; never when the manager goes first.
  virtual void ExchangeAuthorizationCode(const std::string& code,
                                         const base::Callback<void(bool success)>& callback);

  // Empty when no token is at hand; asking may start a refresh that fills it for a later call.
  virtual std::string GetAccessToken();

  // False when the response says that the access token was rejected (401); the token is dropped
  // then and a refresh started.
  virtual bool ValidateResponse(const kestle::http::Response& response);

  // Whether a token is at hand; nothing is started.
  bool HoldsAccessToken() const { return !access_token_.empty(); }
  // Of the token endpoint. The error is one that RFC 6749 names, or a text of our own or of the
  // transport: so it can be shown to every user, whatever the response holds.
  const LastResponse& last_response() const { return last_response_; }
  // `callback` runs after each end of a request, when all that it changes has changed.
  void SetChangedCallback(const base::Callback<void()>& callback) { changed_callback_ = callback; }

 protected:
  // For substitutes: no file, no transport.
  OAuth2Manager() : weak_ptr_factory_(this) {}

 private:
  void RefreshAccessToken();
  void OnRefreshTokenFetched(kestle::http::RequestID id,
                             std::unique_ptr<kestle::http::Response> response);
  void OnRefreshTokenError(kestle::http::RequestID id, const kestle::Error* error);
  void OnAccessTokenFetched(kestle::http::RequestID id,
                            std::unique_ptr<kestle::http::Response> response);
  void OnAccessTokenError(kestle::http::RequestID id, const kestle::Error* error);
  // Sets `last_response_`, with an error that holds until a token is found. Null if the response is
  // an error or not a JSON object.
  std::unique_ptr<base::DictionaryValue> ParseOAuth2Response(kestle::http::Response* response);
  [[nodiscard]] bool ReadTokens(kestle::http::Response* response);
  void FinishExchange(bool success);
  void NotifyChanged() const;

  std::string client_id_;
  std::string client_secret_;
  std::string scope_;
  std::string refresh_token_;
  std::string access_token_;
  base::Callback<void(bool)> pending_callback_;  // Null: no exchange outstanding.
  base::TimeTicks last_refresh_time_;            // When a refresh was last started; null: never.
  base::FilePath refresh_token_file_;
  std::shared_ptr<kestle::http::Transport> transport_;
  LastResponse last_response_;
  base::Callback<void()> changed_callback_;
  base::WeakPtrFactory<OAuth2Manager> weak_ptr_factory_;
};

}  // namespace varelnos::ap
