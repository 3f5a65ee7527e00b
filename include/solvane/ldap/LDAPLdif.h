/// @file
/// LDIF: entries and changes as text.
#ifndef SOLVANE_LDAP_LDIF_H
#define SOLVANE_LDAP_LDIF_H

#include <solvane/ldap/Export.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane {

class LDAPSearchResultEntry;

/// One record of LDIF (RFC 2849): an entry, or a change of one. Line numbers count from 1.
struct LDAPLdifRecord {
    /// What the record is.
    enum class Type {
        Content, ///< an entry, without a changetype
        Add,     ///< changetype add
        Delete,  ///< changetype delete
        Modify,  ///< changetype modify
        Rename,  ///< changetype modrdn or moddn
    };
    /// A value of an attribute.
    struct Attribute {
        std::string description; ///< as written
        std::string value;       ///< any bytes
        unsigned long line = 0;  ///< where it begins
    };
    /// A control of the request (RFC 4511 section 4.1.11).
    struct Control {
        std::string oid;                  ///< its type
        bool isCritical = false;          ///< the server must refuse what it cannot control
        std::optional<std::string> value; ///< any bytes
        unsigned long line = 0;           ///< where it begins
    };
    /// A change of one attribute.
    struct Change {
        /// How the attribute changes.
        enum class Operation {
            Add,      ///< the values are added
            Delete,   ///< the values are deleted
            Replace,  ///< the values replace all others
            Increment ///< the value is added to a number (RFC 4525)
        };
        Operation operation = Operation::Add; ///< how the attribute changes
        std::string attribute;                ///< description, as written
        std::vector<std::string> values;      ///< any bytes; none: the whole attribute
        unsigned long line = 0;               ///< where it begins
    };

    unsigned long line = 0;     ///< where the record begins
    std::string dn;             ///< UTF-8 without NUL; may be empty, that of the root. Not parsed
    Type type = Type::Content;  ///< which of the other members have a meaning
    unsigned long typeLine = 0; ///< of the changetype; 0 for `Type::Content`
    std::vector<Control> controls;          ///< not for `Type::Content`
    std::vector<Attribute> attributes;      ///< of `Type::Content` and `Type::Add`, in their order
    std::vector<Change> changes;            ///< of `Type::Modify`, in their order
    std::string newRdn;                     ///< of `Type::Rename`; not parsed
    bool deletesOldRdn = false;             ///< of `Type::Rename`
    std::optional<std::string> newSuperior; ///< of `Type::Rename`
};

/// Reads LDIF (RFC 2849) record by record from any source. Not thread-safe; may be moved.
///
/// Folded lines, comments, base64, carriage returns, a byte order mark and the version are understood.
/// Beyond the RFC, the version and the "-" after the last change may be missing, values may have any
/// bytes but NUL and newline, names of attributes any letters, digits, "-", ".", ";" and "_", and "=" behind
/// the first ";", an entry may have no attributes, entries and changes may be mixed, and "increment" is a
/// change (RFC 4525). "include" is refused.
class SOLVANE_LDAP_EXPORT LDAPLdifReader {
public:
    /// Copies the next bytes of the input into a buffer and returns their number; 0 at the end. It
    /// may block. It is called only when the reader has no whole line left: a source that returns
    /// what has arrived gets each record reported as soon as the empty line after it has come.
    using Source = std::function<std::size_t(char* buffer, std::size_t size)>;
    /// What is accepted.
    struct Options {
        /// Values of the form "attribute:< file:///path" are read from files. LDIF from another
        /// source could then read any file that the process may read.
        bool mayReadFiles = false;
        /// Largest record, in bytes of its lines and some for each line; and as much for the files of
        /// its values, together. Comments may have any length. The memory in use stays below about
        /// four times this size.
        std::size_t maxBytes = 64U << 20U;
    };

    /// A reader that accepts no files.
    explicit LDAPLdifReader(Source source);
    /// A reader with options.
    LDAPLdifReader(Source source, Options const& options);
    /// Takes the state of `other`, which must not be used any more.
    LDAPLdifReader(LDAPLdifReader&& other) noexcept;
    /// The same.
    LDAPLdifReader& operator=(LDAPLdifReader&& other) noexcept;
    ~LDAPLdifReader();

    /// Reads the next record.
    /// @param record  replaced, also if the record is invalid: then it has what was read of it
    ///                before the error, `line` at least
    /// @return false at the end
    /// @throws LDAPException  code 2, type 0, Ldif.cpp:73: the record is malformed, too large, or
    ///                        has a value from a file that is not allowed. The text is "line N:
    ///                        cause; remedy", `intParameter()` is N. The next call continues with
    ///                        the next record
    /// @throws LDAPException  code 4, type 0, Ldif.cpp:118: a file of a value cannot be read. The
    ///                        same text; the next call continues with the next record
    /// @note  An exception of the source passes through; the next call continues where it stopped.
    bool next(LDAPLdifRecord& record);

private:
    class State;
    std::unique_ptr<State> m_state;
};

/// Writes LDIF (RFC 2849) at the end of strings, in the form of OpenLDAP's tools: lines are folded
/// after 78 bytes, except what is before a value; what is not plain ASCII, userPassword and values with the
/// option "binary" are in base64. All functions are static and thread-safe.
class SOLVANE_LDAP_EXPORT LDAPLdif {
public:
    static constexpr std::size_t defaultWidth = 78;          ///< of lines, as of OpenLDAP's tools
    static constexpr std::size_t unfolded = std::size_t(-1); ///< width of lines that are not folded

    /// Appends a line with its newline.
    /// @param out    the string that grows
    /// @param name   letters, digits, "-", ".", ";" and "_", and "=" behind the first ";"
    /// @param value  any bytes
    /// @param width  bytes after which lines are folded, at least 2; or `unfolded`
    /// @throws LDAPException  code 2, type 0, Ldif.cpp:152: another character in the name, which could
    ///                        change what the line means
    static void appendLine(std::string& out, std::string const& name, std::string_view value,
                           std::size_t width = defaultWidth);
    /// Appends a value of an attribute, as `appendLine`, but for names that come from a server.
    /// @throws LDAPException  code 2, type 0, Ldif.cpp:152: also for the names "dn", "changetype" and
    ///                        "control", which would change what the record means
    static void appendValue(std::string& out, std::string const& name, std::string_view value,
                            std::size_t width = defaultWidth);
    /// Appends an entry, followed by an empty line: the bytes that "ldapsearch -LLL" prints for it.
    /// @throws LDAPException  code 2, type 0, Ldif.cpp:152: an attribute's name has other characters,
    ///                        or is "dn", "changetype" or "control". `out` is unchanged
    static void append(std::string& out, LDAPSearchResultEntry const& entry);
    /// Appends a record, followed by an empty line. Reading it results in the same record, except for
    /// lines, if DNs are valid UTF-8 and what is added has values. Members that have no meaning for its
    /// type are ignored.
    /// @throws LDAPException  code 2, type 0, Ldif.cpp:152: the name of an attribute is one of these, or
    ///                        the OID of a control is none. `out` is unchanged
    static void append(std::string& out, LDAPLdifRecord const& record);
};

} // namespace Solvane

#endif
