#pragma once

// Every text the module shows to the user. Each is distinctive, because
// scripted logins (SSH_ASKPASS helpers, pamtester) answer prompts by their
// text and cannot tell a hidden prompt from an echoed one. pam/README.md
// lists them; keep the two in step.

namespace brackmoor::pam::prompts {

// Verification service.
constexpr char kContact[] = "Phone number or mail address: ";
constexpr char kLoginReference[] = "Login reference: ";               // + the number
constexpr char kCodeForReference[] = "Verification code for login reference "; // + number + ": "
constexpr char kNotRegistered[] = "This phone number or mail address is not registered for this server.";
constexpr char kServiceUnavailable[] =
    "The verification service is unavailable; login refused. Please try again later.";
constexpr char kNoCode[] = "No verification code could be issued; login refused. Please try again later.";
constexpr char kWrongCode[] = "Wrong verification code.";

// Authenticator app on this host.
constexpr char kAuthenticatorCode[] = "Authenticator code: ";
constexpr char kWrongAuthenticatorCode[] = "Wrong authenticator code.";
constexpr char kAuthenticatorCodeUsed[] = "This authenticator code has been used already; wait for the next one.";
constexpr char kTooManyWrongCodes[] = "Too many wrong codes; try again in "; // + "M minutes."
constexpr char kNotEnrolledLetIn[] =
    "No authenticator is set up for this account yet; logged in without one. Ask your administrator to enrol you.";
constexpr char kRecoveryCodeAccepted[] = "Recovery code accepted; codes left: "; // + the number
constexpr char kAuthenticatorUnavailable[] = "The authenticator check is unavailable; login refused.";

// Both.
constexpr char kTooManyTries[] = "Too many failed attempts; login refused.";
// The prompt that carries a refusal to the user; its answer is ignored.
constexpr char kCloseRefusedLogin[] = "Press Enter to close this login attempt: ";

} // namespace brackmoor::pam::prompts
