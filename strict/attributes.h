// The attributes of objects: which object has which, and where their values come from.
#pragma once

#include <optional>

#include "cryptoki.h"
#include "strict/object.h"

namespace velkor::strict
{

enum class Answer { Value, NotThere, Sensitive };

/// The value of one attribute of an object.
Answer attributeOf(const View& view, CK_ATTRIBUTE_TYPE type, SecretBytes& value);

/// Whether objects of that class and key type have the attribute.
bool hasAttribute(CK_OBJECT_CLASS objectClass, CK_KEY_TYPE keyType, CK_ATTRIBUTE_TYPE type);

/// Whether the value follows from what is known of every object, without a look at its contents.
bool needsContents(CK_ATTRIBUTE_TYPE type);

/// A template of the host, checked to be readable.
class Template
{
public:
    /// Refuses a template that is not there, or has an entry without a value.
    static CK_RV read(const char* name, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount, Template& read);

    std::span<const CK_ATTRIBUTE> entries() const { return entries_; }
    bool has(CK_ATTRIBUTE_TYPE type) const { return find(type) != nullptr; }
    /// Empty when the attribute is not there.
    Bytes bytes(CK_ATTRIBUTE_TYPE type) const;
    /// The fallback when the attribute is not there or has another size.
    CK_ULONG number(CK_ATTRIBUTE_TYPE type, CK_ULONG fallback) const;
    bool flag(CK_ATTRIBUTE_TYPE type, bool fallback) const;

private:
    const CK_ATTRIBUTE* find(CK_ATTRIBUTE_TYPE type) const;

    std::span<const CK_ATTRIBUTE> entries_;
};

/// Checks that every attribute of a template is one that such an object has, with a value of its size, and that none
/// asks for what is not held to.
CK_RV checkTemplate(const char* name, const Template& wanted, CK_OBJECT_CLASS objectClass, CK_KEY_TYPE keyType);

} // namespace velkor::strict
