// The tool's own standard output, kept apart from that of the commands which the libraries run.
#pragma once

#include <string>

namespace upgradectl {

// While one exists, file descriptor 1 leads to /dev/null: tar's list of files and openssl's verdicts go
// there. What the tool itself has to say goes through write().
class OwnOutput {
  public:
    OwnOutput();
    ~OwnOutput();
    OwnOutput(const OwnOutput&) = delete;
    OwnOutput& operator=(const OwnOutput&) = delete;

    // Writes to what was standard output. What cannot be written is lost: a run does not fail for a lost
    // reader.
    void write(const std::string& text) const;
    void writeLine(const std::string& text) const { write(text + "\n"); }

    bool isTerminal() const;
    // The terminal's width in characters.
    int columns() const;

  private:
    int descriptor;  // negative when there is no standard output
};

}  // namespace upgradectl
