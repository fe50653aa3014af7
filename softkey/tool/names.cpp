#include "tool/names.h"

#include <algorithm>
#include <string_view>

namespace softkey
{
namespace
{

using GeneralName = Owned<GENERAL_NAME, GENERAL_NAME_free>;
using Address = Owned<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>;

[[noreturn]] void refuse(const std::string& what)
{
    throw Refusal(SoftkeyStatus::BadArgument, what);
}

/// Parts between separators; a backslash takes the next character as it is.
std::vector<std::string> partsOf(std::string_view text, char separator)
{
    std::vector<std::string> parts(1);
    bool isEscaped = false;
    for (const char character : text) {
        if (!isEscaped && character == separator)
            parts.emplace_back();
        else if (isEscaped || character != '\\')
            parts.back() += character;
        isEscaped = !isEscaped && character == '\\';
    }
    return parts;
}

void addPart(X509_NAME* name, const std::string& part)
{
    const std::size_t equals = part.find('=');
    if (equals == std::string::npos)
        refuse("\"" + part + "\" of the subject is no TYPE=VALUE");
    const std::size_t start = part.find_first_not_of(' ');
    const std::string type = part.substr(start, equals - start);
    const std::string value = part.substr(equals + 1);
    const int kind = OBJ_txt2nid(type.c_str());
    if (kind == NID_undef)
        refuse("there is no \"" + type + "\" in a name; CN, O, OU, C, ST, L, DC, UID, emailAddress are some that are");
    if (value.empty() ||
        X509_NAME_add_entry_by_NID(name, kind, MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(value.data()),
                                   static_cast<int>(value.size()), -1, 0) != 1)
        refuse("\"" + value + "\" is no value of " + type);
}

struct NameForm {
    std::string_view prefix;
    int type;
};
constexpr NameForm NAME_FORMS[] = {{"DNS:", GEN_DNS}, {"IP:", GEN_IPADD}, {"email:", GEN_EMAIL}, {"URI:", GEN_URI}};

int guessedType(const std::string& value)
{
    if (Address(a2i_IPADDRESS(value.c_str())))
        return GEN_IPADD;
    if (value.find("://") != std::string::npos)
        return GEN_URI;
    return value.find('@') != std::string::npos ? GEN_EMAIL : GEN_DNS;
}

GeneralName generalName(const std::string& text)
{
    const auto* form =
        std::ranges::find_if(NAME_FORMS, [&](const NameForm& each) { return text.starts_with(each.prefix); });
    const bool isNamed = form != std::end(NAME_FORMS);
    const std::string value = isNamed ? text.substr(form->prefix.size()) : text;
    // The encoding has no other characters; a host of another script has a form of these.
    const bool isPlain = std::ranges::all_of(value, [](char each) { return each > 0x20 && each < 0x7f; });
    GeneralName name(
        value.empty() || !isPlain
            ? nullptr
            : a2i_GENERAL_NAME(nullptr, nullptr, nullptr, isNamed ? form->type : guessedType(value), value.c_str(), 0));
    if (!name)
        refuse("\"" + text + "\" is no name of a host, an address, a mail address or a URI");
    return name;
}

} // namespace

DistinguishedName nameFrom(const std::string& text)
{
    auto name = requireObject<DistinguishedName>(X509_NAME_new());
    if (text.empty())
        refuse("the subject is empty");
    if (text.find('=') == std::string::npos) {
        addPart(name.get(), "CN=" + text);
        return name;
    }
    const bool hasSlashes = text.front() == '/';
    std::vector<std::string> parts = hasSlashes ? partsOf(text.substr(1), '/') : partsOf(text, ',');
    if (!hasSlashes)
        std::ranges::reverse(parts);
    for (const std::string& part : parts)
        addPart(name.get(), part);
    return name;
}

AlternativeNames alternativeNamesFrom(const std::vector<std::string>& texts)
{
    if (texts.empty())
        return nullptr;
    auto names = requireObject<AlternativeNames>(GENERAL_NAMES_new());
    for (const std::string& text : texts) {
        GeneralName name = generalName(text);
        require(sk_GENERAL_NAME_push(names.get(), name.get()) > 0);
        static_cast<void>(name.release()); // The list has it.
    }
    return names;
}

} // namespace softkey
