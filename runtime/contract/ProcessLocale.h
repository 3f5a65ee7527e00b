// The process's locale for the time of a test.
#ifndef SOLVART_CONTRACT_PROCESS_LOCALE_H
#define SOLVART_CONTRACT_PROCESS_LOCALE_H

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

/// Chooses a locale and goes back to "C" in the end.
class ProcessLocale {
public:
    /// An installed locale.
    explicit ProcessLocale(char const* name) : m_isChosen(std::setlocale(LC_ALL, name) != nullptr)
    {
    }
    /// A locale compiled for this test from the system's sources, such as "el_GR", for a character
    /// set, such as "ISO-8859-7". Where those sources or their compiler are missing, none is
    /// chosen.
    ProcessLocale(char const* source, char const* charset)
    {
        std::string folder = (std::filesystem::temp_directory_path() / "localeXXXXXX").string();
        if (::mkdtemp(folder.data()) == nullptr) {
            return;
        }
        m_folder = folder;
        std::string const command = std::string("localedef -c --no-archive -i ") + source + " -f " +
                                    charset + " " + folder + "/contract >/dev/null 2>&1";
        // A locale with warnings is made all the same, so the outcome shows when it is chosen.
        [[maybe_unused]] int const status = std::system(command.c_str());
        ::setenv("LOCPATH", folder.c_str(), 1);
        m_isChosen = std::setlocale(LC_ALL, "contract") != nullptr;
        ::unsetenv("LOCPATH");
    }
    ~ProcessLocale()
    {
        std::setlocale(LC_ALL, "C");
        if (!m_folder.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(m_folder, ignored);
        }
    }
    ProcessLocale(ProcessLocale const&) = delete;
    ProcessLocale& operator=(ProcessLocale const&) = delete;

    bool isChosen() const { return m_isChosen; }

private:
    bool m_isChosen = false;
    std::filesystem::path m_folder;
};

/// Leaves a test that needs a locale which cannot be had.
#define SKIP_UNLESS_CHOSEN(locale)                                                                 \
    if (!(locale).isChosen()) {                                                                    \
        GTEST_SKIP() << "the locale is neither installed nor can it be compiled";                  \
    }

#endif
