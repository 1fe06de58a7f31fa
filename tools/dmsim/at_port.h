// dmsim at --port: the AT console served on a pseudo-terminal, as a modem
// serves its AT port, so that AT clients nobody here wrote (chat, a RIL's
// AT channel, a terminal program) can be pointed at the data manager.
#ifndef DMSIM_AT_PORT_H
#define DMSIM_AT_PORT_H

#include <string>
#include <string_view>
#include <vector>

namespace dmsim {

// A text of the data manager (an answer or a URC) as a modem frames it on
// its AT port: information lines as "\r\n" line ("\r\n" line)... "\r\n",
// then the final result code apart as "\r\n" code "\r\n".  The text's own
// line ends, whatever they are (the data manager's answers carry CRLF
// already, a forged URC keeps the command line's CR, a modem URC has none),
// are taken as line breaks, and empty lines are dropped, so that the client
// sees neither doubled blank lines nor stray carriage returns.
std::string modem_framing(std::string_view text);

// One command line the client sent, without its line end.
struct PortLine {
    std::string text;
    bool too_long = false;  // over kMaxLine characters: refused, text cut
};

class AtPort {
  public:
    // Longest command line taken; longer ones are answered ERROR.
    static constexpr size_t kMaxLine = 2048;

    AtPort() = default;
    ~AtPort();
    AtPort(const AtPort &) = delete;
    AtPort &operator=(const AtPort &) = delete;

    // Opens a pseudo-terminal in raw mode (no echo, no line editing, CR kept
    // as CR, output unchanged) and links `link` to its terminal side.  An
    // existing link to a pseudo-terminal (a former run's) is replaced; any
    // other file at `link` is refused.  false with the reason.
    bool open(const std::string &link, std::string &error);
    int fd() const { return master_; }
    const std::string &terminal() const { return pts_; }

    // Reads what the client wrote and appends each complete line to `lines`.
    // A line ends at CR or LF; CRLF ends one line, empty lines are dropped,
    // NUL bytes are left out.  false when the terminal has failed.
    bool read(std::vector<PortLine> &lines);
    // Writes to the client; false when the client reads nothing and the
    // terminal's buffer is full (what does not fit is dropped).
    bool write(std::string_view bytes);

  private:
    int master_ = -1;
    int slave_ = -1;  // held, so that clients may come and go
    std::string link_, pts_, pending_;
    bool overflow_ = false;
};

}  // namespace dmsim

#endif  // DMSIM_AT_PORT_H
