#include "OtpRecord.h"

#include <cstdlib>

namespace brackmoor::pam {
namespace {

constexpr std::size_t kMaxIssuer = 64;
/// More pending skew than this is adopted, so never stored.
constexpr std::size_t kMaxPendingSkew = 2;

/// Decimal digits only, at most `max`.
bool ParseNumber(const std::string& text, std::uint64_t max, std::uint64_t* value)
{
    if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    *value = std::strtoull(text.c_str(), nullptr, 10);
    return *value <= max;
}

/// An optional '-' and digits, within ±`bound`.
bool ParseSmallInt(const std::string& text, int bound, int* value)
{
    const bool negative = !text.empty() && text[0] == '-';
    std::uint64_t magnitude = 0;
    if (!ParseNumber(negative ? text.substr(1) : text, static_cast<std::uint64_t>(bound), &magnitude)) {
        return false;
    }
    *value = negative ? -static_cast<int>(magnitude) : static_cast<int>(magnitude);
    return true;
}

/// "2,3" or "-1" or "": steps of one sign, none zero.
bool ParseSkew(const std::string& text, std::vector<int>* skew)
{
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find(',', start);
        end = end == std::string::npos ? text.size() : end;
        int value = 0;
        if (!ParseSmallInt(text.substr(start, end - start), kMaxOffsetSteps, &value) || value == 0 ||
            (!skew->empty() && (value > 0) != (skew->front() > 0))) {
            return false;
        }
        skew->push_back(value);
        start = end + 1;
    }
    return skew->size() <= kMaxPendingSkew;
}

/// One "key=value" line of a record; the secret is taken by position so that
/// it is not copied outside the record's wiped buffer.
class RecordReader {
public:
    explicit RecordReader(OtpRecord* record) : record_(record) {}

    bool Line(const std::string& text, std::size_t start, std::size_t end)
    {
        const std::size_t equals = text.find('=', start);
        if (equals == std::string::npos || equals >= end) {
            return false;
        }
        const std::string key = text.substr(start, equals - start);
        if (key == "secret") {
            record_->secretBase32.Assign(text.data() + equals + 1, end - equals - 1);
            return record_->Enrolled();
        }
        newKeys_ = newKeys_ || key != "last_step";
        return Value(key, text.substr(equals + 1, end - equals - 1));
    }

    /// Checks what only the whole record can tell.
    bool Complete() const
    {
        if (version_ == 1) {
            return !newKeys_ && record_->Enrolled();
        }
        const OtpParameters& p = record_->parameters;
        return (p.digits == 6 || p.digits == 8) && (p.period == 30 || p.period == 60) && p.window >= 1 &&
               record_->recoveryHashes.size() <= kRecoveryCodeCount;
    }

private:
    bool Value(const std::string& key, const std::string& value)
    {
        OtpRecord& r = *record_;
        std::uint64_t number = 0;
        if (key == "version") {
            return ParseNumber(value, kRecordVersion, &number) && number >= 1 && (version_ = number, true);
        }
        if (key == "kind") {
            r.parameters.kind = value == "hotp" ? OtpKind::Hotp : OtpKind::Totp;
            return value == "hotp" || value == "totp";
        }
        if (key == "algorithm") {
            return ParseAlgorithmName(value, &r.parameters.algorithm);
        }
        if (key == "issuer") {
            r.issuer = value;
            return IsValidIssuer(value);
        }
        if (key == "offset") {
            return ParseSmallInt(value, kMaxOffsetSteps, &r.offset);
        }
        if (key == "skew") {
            return ParseSkew(value, &r.pendingSkew);
        }
        if (key == "recovery") {
            r.recoveryHashes.push_back(value);
            return !value.empty();
        }
        return Number(key, value);
    }

    bool Number(const std::string& key, const std::string& value)
    {
        OtpRecord& r = *record_;
        std::uint64_t number = 0;
        const bool digits = ParseNumber(value, UINT64_MAX / 2, &number);
        if (key == "last_step" || key == "counter") {
            (key == "counter" ? r.counter : r.lastStep) = number;
        } else if (key == "failures_since") {
            r.failuresSince = static_cast<std::int64_t>(number);
        } else if (key == "digits" || key == "period" || key == "window" || key == "failures") {
            unsigned& field = key == "digits"   ? r.parameters.digits
                              : key == "period" ? r.parameters.period
                              : key == "window" ? r.parameters.window
                                                : r.failures;
            field = static_cast<unsigned>(number);
            return digits && number <= (key == "window" ? kMaxWindowSteps : 100000u);
        } else {
            return false;
        }
        return digits;
    }

    OtpRecord* record_;
    std::uint64_t version_ = 1;
    bool newKeys_ = false;
};

} // namespace

const char* AlgorithmName(OtpAlgorithm algorithm)
{
    switch (algorithm) {
    case OtpAlgorithm::Sha256:
        return "SHA256";
    case OtpAlgorithm::Sha512:
        return "SHA512";
    case OtpAlgorithm::Sha1:
        break;
    }
    return "SHA1";
}

bool ParseAlgorithmName(const std::string& name, OtpAlgorithm* algorithm)
{
    for (OtpAlgorithm candidate : {OtpAlgorithm::Sha1, OtpAlgorithm::Sha256, OtpAlgorithm::Sha512}) {
        if (name == AlgorithmName(candidate)) {
            *algorithm = candidate;
            return true;
        }
    }
    return false;
}

bool IsValidIssuer(const std::string& issuer)
{
    if (issuer.empty() || issuer.size() > kMaxIssuer) {
        return false;
    }
    for (char c : issuer) {
        if (c < 0x20 || c > 0x7e || c == ':') {
            return false;
        }
    }
    return true;
}

bool ParseOtpRecord(const std::string& text, OtpRecord* record)
{
    RecordReader reader(record);
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end;
        if (end != start && !reader.Line(text, start, end)) {
            return false;
        }
        start = end + 1;
    }
    return reader.Complete();
}

std::string FormatOtpRecord(const OtpRecord& record)
{
    const OtpParameters& p = record.parameters;
    std::string skew;
    for (int step : record.pendingSkew) {
        skew += (skew.empty() ? "" : ",") + std::to_string(step);
    }
    std::string text;
    // One allocation up front, so no reallocated copy of the secret is left behind.
    text.reserve(512 + record.secretBase32.Text().size() + record.recoveryHashes.size() * 128);
    text.append("version=").append(std::to_string(kRecordVersion)).append("\n");
    text.append("kind=").append(p.kind == OtpKind::Hotp ? "hotp" : "totp").append("\n");
    if (record.Enrolled()) {
        text.append("secret=").append(record.secretBase32.Text()).append("\n");
    }
    text.append("algorithm=").append(AlgorithmName(p.algorithm)).append("\n");
    text.append("digits=" + std::to_string(p.digits) + "\nperiod=" + std::to_string(p.period) + "\nwindow=" +
                std::to_string(p.window) + "\nissuer=" + record.issuer + "\n");
    text.append("last_step=" + std::to_string(record.lastStep) + "\ncounter=" + std::to_string(record.counter) +
                "\noffset=" + std::to_string(record.offset) + "\nskew=" + skew + "\n");
    text.append("failures=" + std::to_string(record.failures) +
                "\nfailures_since=" + std::to_string(record.failuresSince) + "\n");
    for (const std::string& hash : record.recoveryHashes) {
        text.append("recovery=").append(hash).append("\n");
    }
    return text;
}

} // namespace brackmoor::pam
