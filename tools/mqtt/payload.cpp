#include "payload.h"

#include <string.h>

#include <nlohmann/json.hpp>

#include "topics.h"

namespace qormqtt {

namespace {

using nlohmann::json;

constexpr char szDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// An object; false for everything else. It is checked before anything is read, because a payload comes from strangers.
payloadState parseObject(const std::string& strPayload, json& object) {
    if (strPayload.size() > maxPayload)
        return payloadState::tooLong;
    object = json::parse(strPayload, nullptr, false);
    return object.is_object() ? payloadState::good : payloadState::malformed;
}

// A whole number within the bounds.
bool readInteger(const json& value, int64_t nMin, int64_t nMax, int64_t& n) {
    if (value.is_number_unsigned() && value.get<uint64_t>() > static_cast<uint64_t>(INT64_MAX))
        return false;
    if (!value.is_number_integer())
        return false;
    n = value.get<int64_t>();
    return n >= nMin && n <= nMax;
}

payloadState readData(const json& value, std::string& strData) {
    if (!value.is_string() || !decodeBase64(value.get_ref<const std::string&>(), strData))
        return payloadState::malformed;
    return strData.size() > maxData ? payloadState::tooLong : payloadState::good;
}

payloadState readMember(const std::string& strName, const json& value, messagePayload& message) {
    int64_t n = 0;
    if (strName == "w" && readInteger(value, 0, UINT32_MAX, n))
        message.wParam = static_cast<uint32_t>(n);
    else if (strName == "l" && readInteger(value, INT32_MIN, INT32_MAX, n))
        message.lParam = static_cast<int32_t>(n);
    else if (strName == "data")
        return readData(value, message.strData);
    else
        return payloadState::malformed;
    return payloadState::good;
}

payloadState readValue(const json& value, setPayload& set) {
    if (value.is_null())
        set.bDelete = true;
    else if (value.is_string())
        set.strValue = value.get<std::string>();
    else if (value.is_boolean())
        set.strValue = value.get<bool>() ? "1" : "0";
    else if (value.is_number())
        set.strValue = value.dump();
    else
        return payloadState::malformed;
    if (set.strValue.find('\0') != std::string::npos)
        return payloadState::malformed;
    return set.strValue.size() > maxData ? payloadState::tooLong : payloadState::good;
}

std::string dump(const json& object) { return object.dump(-1, ' ', false, json::error_handler_t::replace); }

int valueOfDigit(char ch) {
    const char* const pDigit = ch != '\0' ? strchr(szDigits, ch) : nullptr;
    return pDigit != nullptr ? static_cast<int>(pDigit - szDigits) : -1;
}

}  // namespace

payloadState parseMessage(const std::string& strPayload, messagePayload& message) {
    message = messagePayload();
    if (strPayload.empty())
        return payloadState::good;
    json object;
    payloadState state = parseObject(strPayload, object);
    if (state != payloadState::good)
        return state;
    for (auto it = object.begin(); it != object.end() && state == payloadState::good; ++it)
        state = readMember(it.key(), it.value(), message);
    return state;
}

std::string formatMessage(const messagePayload& message) {
    json object = json::object();
    if (message.wParam != 0)
        object["w"] = message.wParam;
    if (message.lParam != 0)
        object["l"] = message.lParam;
    if (!message.strData.empty())
        object["data"] = encodeBase64(message.strData);
    return dump(object);
}

payloadState parseSet(const std::string& strPayload, setPayload& set) {
    set = setPayload();
    json object;
    const payloadState state = parseObject(strPayload, object);
    if (state != payloadState::good)
        return state;
    if (object.size() != 1)
        return payloadState::malformed;
    if (object.begin().key() == "value")
        return readValue(object.begin().value(), set);
    if (object.begin().key() != "data")
        return payloadState::malformed;
    const payloadState data = readData(object.begin().value(), set.strValue);
    return set.strValue.find('\0') != std::string::npos ? payloadState::malformed : data;
}

std::string formatValue(const std::string& strValue, uint32_t uSession, bool bByNetwork) {
    json object = {{"session", uSession}, {"by", bByNetwork ? "network" : "device"}};
    if (isValidUtf8(strValue))
        object["value"] = strValue;
    else
        object["data"] = encodeBase64(strValue);
    return dump(object);
}

payloadState parseLines(const std::string& strPayload, int& nLines) {
    if (strPayload.empty())
        return payloadState::good;
    json object;
    const payloadState state = parseObject(strPayload, object);
    int64_t n = 0;
    if (state != payloadState::good)
        return state;
    if (object.size() != 1 || !object.contains("lines") || !readInteger(object["lines"], 1, INT32_MAX, n))
        return payloadState::malformed;
    nLines = static_cast<int>(n);
    return payloadState::good;
}

bool parseState(const std::string& strPayload, bool& bOnline, uint32_t& uBirth) {
    json object;
    int64_t n = 0;
    if (parseObject(strPayload, object) != payloadState::good || !object.contains("state") ||
        !object.contains("birth") || !readInteger(object["birth"], 0, UINT32_MAX, n))
        return false;
    bOnline = object["state"] == "online";
    uBirth = static_cast<uint32_t>(n);
    return bOnline || object["state"] == "offline";
}

std::string formatState(bool bOnline, uint32_t uBirth) {
    return dump({{"state", bOnline ? "online" : "offline"}, {"birth", uBirth}});
}

std::string encodeBase64(const std::string& strBytes) {
    std::string strText;
    for (size_t i = 0; i < strBytes.size(); i += 3) {
        uint32_t u = 0;
        for (size_t k = 0; k < 3; ++k)
            u = u << 8 | (i + k < strBytes.size() ? static_cast<unsigned char>(strBytes[i + k]) : 0u);
        for (size_t k = 0; k < 4; ++k)
            strText += i + k <= strBytes.size() ? szDigits[u >> (18 - 6 * k) & 63] : '=';
    }
    return strText;
}

bool decodeBase64(const std::string& strText, std::string& strBytes) {
    strBytes.clear();
    if (strText.size() % 4 != 0)
        return false;
    for (size_t i = 0; i < strText.size(); i += 4) {
        const bool bLast = i + 4 == strText.size();
        const int nPadding = !bLast || strText[i + 3] != '=' ? 0 : strText[i + 2] != '=' ? 1 : 2;
        uint32_t u = 0;
        for (size_t k = 0; k < 4; ++k) {
            const int nDigit = static_cast<int>(k) < 4 - nPadding ? valueOfDigit(strText[i + k]) : 0;
            if (nDigit < 0)
                return false;
            u = u << 6 | static_cast<uint32_t>(nDigit);
        }
        for (int k = 0; k < 3 - nPadding; ++k)
            strBytes += static_cast<char>(u >> (16 - 8 * k) & 0xff);
    }
    return true;
}

}  // namespace qormqtt
