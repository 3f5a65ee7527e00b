// An administrator's query template and the filters that addresses make of it.
#ifndef SOLVANE_TOOL_QUERY_TEMPLATE_H
#define SOLVANE_TOOL_QUERY_TEMPLATE_H

#include <string>
#include <vector>

namespace Solvane::Tool {

/// A template with the values of `$b` and `$g`. All expanding is done by the library.
class QueryTemplate {
public:
    /// @throws Failure  "badInput": a value or the template is no line of UTF-8 text
    QueryTemplate(std::string const& text, std::string const& bValue, std::string const& gValue);

    /// The filter that looks for `address`.
    /// @throws Failure  "badInput": the template is malformed, the address is empty or no line of
    ///                  UTF-8 text, or the filter is empty or no UTF-8, and so would find nothing
    ///                  or everything
    std::string filterFor(std::string const& address) const;

    /// Expands for an address that stands for any.
    /// @throws Failure  "badInput": the template is malformed
    void check() const;

    /// What one specifier does.
    struct Step {
        std::string::size_type position; ///< of its "$", in the template without surrounding blanks
        std::string specifier;           ///< as it is written
        std::string dropped;             ///< text of the template before it that is left out
        std::string inserted;
        std::string removed; ///< what `${...}` took away
        /// What `${...}` put in the place of `removed`: empty, unless it did not cut from the text
        /// that the specifier before it inserted.
        std::string replacement;
    };

    /// The specifiers in their order, up to the first malformed one.
    std::vector<Step> explain(std::string const& address) const;

private:
    std::string expand(std::string const& query, std::string const& address) const;

    std::string m_text; ///< without surrounding blanks
    std::string m_bValue;
    std::string m_gValue;
};

} // namespace Solvane::Tool

#endif
