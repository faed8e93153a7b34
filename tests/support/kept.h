// Texts that have to stay as they are, kept as digests: a file has a line "NAME DIGEST" for each.
//
// After a change that is meant to change them, run the tests once with ORVSCAN_RECORD=1. To see
// what is different, run those of both commits with ORVSCAN_TEXTS=FOLDER, and compare the two
// folders.
#pragma once

#include <map>
#include <string>

class kept_texts {
public:
    explicit kept_texts(const std::string &path);
    ~kept_texts(); // records
    kept_texts(kept_texts &&) = delete;

    // Fails the test when the text of that name is another than before.
    void compare(const std::string &name, const std::string &text);

private:
    std::string m_path;
    std::map<std::string, std::string> m_digests;
};
