#include "sim/scenario.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <sstream>

#include "evfw.h"
#include "evfw_ids.h"
#include "sim/errno_text.h"

namespace dm::sim {

namespace {

struct NamedId {
    std::string_view name;
    uint32_t id;
};

#define DMSIM_NAMED_ID(name, value) NamedId{#name, value},
constexpr NamedId kEventNames[] = {EVFW_EVENT_LIST(DMSIM_NAMED_ID)};
constexpr NamedId kTaskNames[] = {EVFW_TASK_LIST(DMSIM_NAMED_ID)};
#undef DMSIM_NAMED_ID

// Short names of the simulated tasks.
constexpr NamedId kPeerAliases[] = {
        {"ati_atc", TASK_ATI_ATC}, {"ati_urc", TASK_ATI_URC},       {"rildproxy", TASK_RILDPROXY},
        {"atmngr", TASK_ATMNGR},   {"atmngr_c2k", TASK_ATMNGR_C2K}, {"rb0", TASK_RB_SIM0},
        {"rb1", TASK_RB_SIM1},     {"rb2", TASK_RB_SIM2},           {"rb3", TASK_RB_SIM3},
};

// The data manager's own tasks, as destinations of `send ... to`.
constexpr NamedId kTargets[] = {
        {"datamngr", TASK_DATAMNGR}, {"dati", TASK_DATAMNGR_DATI_HDL}, {"aux", TASK_DATAMNGR_AUX}};

// External clients known without a declaration.
constexpr std::string_view kKnownClients[] = {"imsm_0", "imsm_1", "imsm_2", "imsm_3", "lanmngr"};

constexpr std::string_view kSteps =
        "title, iface, iface-ra, client, property, announce, send, ril, at, at-register, urc, "
        "expect, "
        "expect-none, expect-at, expect-urc, expect-log, expect-no-log, expect-pdn";

struct Tok {
    std::string text;       // unescaped
    int first_quoted = -1;  // index in text of the first character written in quotes
};

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) {
        s.remove_suffix(1);
    }
    return s;
}

bool is_uint(std::string_view s) {
    return !s.empty() &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool to_uint(std::string_view s, uint64_t max, uint64_t &out) {
    if (!is_uint(s) || s.size() > 10) return false;
    out = std::stoull(std::string(s));
    return out <= max;
}

// A cid of expect-pdn: -2147483648..2147483647.
bool parse_cid(std::string_view s, bool &negative, uint64_t &magnitude) {
    negative = !s.empty() && s.front() == '-';
    if (negative) s.remove_prefix(1);
    return to_uint(s, negative ? 0x80000000u : 0x7fffffffu, magnitude);
}

bool find_named(std::span<const NamedId> table, std::string_view name, uint32_t &id) {
    for (const NamedId &n : table) {
        if (n.name == name) {
            id = n.id;
            return true;
        }
    }
    return false;
}

std::string record_names() {
    std::string out;
    for (const RecordDesc *r : all_records()) {
        if (!out.empty()) out += ", ";
        out += r->name;
    }
    return out;
}

class Parser {
  public:
    Parser(std::string_view name, Scenario &sc) : name_(name), sc_(sc) {}

    bool parse(std::string_view text, std::string &error);

  private:
    bool fail(const std::string &what) {
        error_ = std::string(name_) + ":" + std::to_string(line_) + ": " + what;
        return false;
    }

    bool unescape(std::string_view in, bool quotes, std::vector<Tok> &out);
    bool rest_text(std::string_view rest, std::string &out, const char *what);
    bool tokens(std::string_view rest, std::vector<Tok> &out) { return unescape(rest, true, out); }

    bool peer(const std::string &token, PeerRef &out);
    bool event(const std::string &token, uint32_t &out);
    bool payload(const std::vector<Tok> &toks, size_t from, uint32_t event_id, bool sending,
                 Payload &p);
    bool assign(const Tok &tok, size_t eq, Payload &p, bool sending);
    void mention(const PeerRef &p);

    bool step(std::string_view keyword, std::string_view rest);
    bool iface(const std::vector<Tok> &toks);
    bool iface_ra(const std::vector<Tok> &toks);
    bool iface_name(const std::string &name, IfaceDecl &d);
    bool ril(const std::vector<Tok> &toks, Step &s);

    std::string_view name_;
    Scenario &sc_;
    int line_ = 0;
    bool started_ = false;  // a step that runs has been read
    std::vector<std::string> declared_;
    std::string error_;
};

bool Parser::unescape(std::string_view in, bool quotes, std::vector<Tok> &out) {
    out.clear();
    Tok cur;
    bool in_token = false;
    bool quoted = false;
    for (size_t i = 0; i < in.size(); ++i) {
        char c = in[i];
        if (quotes && !quoted && (c == ' ' || c == '\t')) {
            if (in_token) out.push_back(std::move(cur));
            cur = Tok{};
            in_token = false;
            continue;
        }
        in_token = true;
        if (quotes && c == '"') {
            quoted = !quoted;
            if (quoted && cur.first_quoted < 0)
                cur.first_quoted = static_cast<int>(cur.text.size());
            continue;
        }
        if (c != '\\') {
            cur.text += c;
            continue;
        }
        if (++i == in.size())
            return fail("a backslash ends the line; expected an escape such as \\r");
        switch (in[i]) {
            case 'r':
                cur.text += '\r';
                break;
            case 'n':
                cur.text += '\n';
                break;
            case 't':
                cur.text += '\t';
                break;
            case '0':
                cur.text += '\0';
                break;
            case '\\':
            case '"':
                cur.text += in[i];
                break;
            case 'x': {
                std::string hex(in.substr(i + 1, 2));
                if (hex.size() != 2 || !std::isxdigit(static_cast<unsigned char>(hex[0])) ||
                    !std::isxdigit(static_cast<unsigned char>(hex[1]))) {
                    return fail("expected two hex digits after \\x");
                }
                cur.text += static_cast<char>(std::stoi(hex, nullptr, 16));
                i += 2;
                break;
            }
            default:
                return fail(std::string("unknown escape \\") + in[i] +
                            "; expected \\r, \\n, \\t, \\0, \\\\, \\\" or \\xHH");
        }
    }
    if (quoted) return fail("unterminated double quote; expected a closing \"");
    if (in_token) out.push_back(std::move(cur));
    return true;
}

// The rest of the line as one text, escapes interpreted, quotes kept.
bool Parser::rest_text(std::string_view rest, std::string &out, const char *what) {
    std::vector<Tok> one;
    if (!unescape(rest, false, one)) return false;
    if (one.empty() || one[0].text.empty()) return fail(std::string("expected ") + what);
    out = one[0].text;
    return true;
}

void Parser::mention(const PeerRef &p) {
    if (p.is_client() &&
        std::find(sc_.clients.begin(), sc_.clients.end(), p.client) == sc_.clients.end()) {
        sc_.clients.push_back(p.client);
    }
}

bool Parser::peer(const std::string &token, PeerRef &out) {
    out = PeerRef{};
    uint32_t id = 0;
    uint64_t n = 0;
    if (find_named(kPeerAliases, token, id) || find_named(kTaskNames, token, id)) {
        out.task_id = id;
    } else if (to_uint(token, EVFW_EXT_ID_BASE - 1, n) && n != 0) {
        out.task_id = static_cast<uint32_t>(n);
    } else if (std::find(std::begin(kKnownClients), std::end(kKnownClients), token) !=
                       std::end(kKnownClients) ||
               std::find(declared_.begin(), declared_.end(), token) != declared_.end()) {
        out.client = token;
        mention(out);
        return true;
    } else {
        return fail("unknown peer '" + token +
                    "'; expected a task (rildproxy, rb0..rb3, ati_atc, ati_urc, atmngr, "
                    "atmngr_c2k, a TASK_ name or a task id), an IMS manager imsm_0..imsm_3, "
                    "lanmngr, or a client declared with 'client NAME'");
    }
    if (out.task_id == TASK_DATAMNGR || out.task_id == TASK_DATAMNGR_DATI_HDL ||
        out.task_id == TASK_DATAMNGR_AUX) {
        return fail("'" + token + "' is a task of the data manager itself; expected a peer of it");
    }
    return true;
}

bool Parser::event(const std::string &token, uint32_t &out) {
    if (event_id_by_name(token, out)) return true;
    return fail("expected an event id (a number or an EVENT_ name), found '" + token + "'");
}

bool Parser::assign(const Tok &tok, size_t eq, Payload &p, bool sending) {
    std::string key = tok.text.substr(0, eq);
    std::string val = tok.text.substr(eq + 1);
    const bool quoted = tok.first_quoted >= 0 && static_cast<size_t>(tok.first_quoted) > eq;
    if (tok.first_quoted >= 0 && static_cast<size_t>(tok.first_quoted) <= eq) {
        return fail("a field name is written without quotes; found '" + tok.text + "'");
    }
    Assign a;
    std::string err;
    if (!key.empty() && key[0] == '@') {
        // A raw offset: @OFFSET[:u8|:u32|:i32|:u64]=value, or a text or hex value.
        std::string_view offset_text = std::string_view(key).substr(1);
        std::string_view type = "u32";
        if (size_t colon = offset_text.find(':'); colon != std::string_view::npos) {
            type = offset_text.substr(colon + 1);
            offset_text = offset_text.substr(0, colon);
        }
        uint64_t off = 0;
        if (!to_uint(offset_text, 1u << 20, off)) {
            return fail("expected @<byte offset>=<value>, found '" + key + "'");
        }
        Kind kind = Kind::U32;
        if (type == "u8") {
            kind = Kind::U8;
        } else if (type == "u32") {
            kind = Kind::U32;
        } else if (type == "i32") {
            kind = Kind::I32;
        } else if (type == "u64") {
            kind = Kind::U64;
        } else {
            return fail("expected a width :u8, :u32, :i32 or :u64 after @" +
                        std::string(offset_text) + ", found ':" + std::string(type) + "'");
        }
        if (quoted) {
            kind = Kind::Text;
        } else if (val.starts_with("hex:")) {
            kind = Kind::Bytes;
        }
        const bool open = kind == Kind::Text || kind == Kind::Bytes;
        const size_t width = kind == Kind::U8 ? 1 : kind == Kind::U64 ? 8 : 4;
        if (!encode_value(kind, open ? (1u << 20) : width, val, quoted, a.value, err)) {
            return fail(key + ": " + err);
        }
        if (p.record != nullptr && p.record->size == 0) {
            return fail("a text payload has no offsets; expected text=\"...\"");
        }
        a.field.path = key;
        a.field.offset = static_cast<size_t>(off);
        a.field.kind = kind;
        // A raw text runs to the end of the payload (size 0); the rest have
        // the width of their value.
        a.field.size = kind == Kind::Text ? 0 : open ? a.value.size() : width;
        if (sending && a.field.offset + a.value.size() > p.len) {
            return fail(key + " lies beyond the payload of " + std::to_string(p.len) + " bytes");
        }
        p.assigns.push_back(std::move(a));
        return true;
    }
    if (p.record == nullptr) {
        return fail("'" + key +
                    "' needs a record: this event has none by default; give a record name "
                    "before the fields, or raw fields @<offset>=<value>");
    }
    if (!resolve_field(*p.record, key, a.field, err)) return fail(err);
    if (a.field.kind == Kind::Ipv6 && !quoted && val.starts_with("slaac:")) {
        a.slaac = val.substr(6);
        if (std::none_of(sc_.ifaces.begin(), sc_.ifaces.end(), [&](const IfaceDecl &d) {
                return d.name == a.slaac && !d.ra_prefix.empty();
            })) {
            return fail(key + ": '" + val +
                        "' names no interface declared with iface-ra; expected "
                        "slaac:<interface>");
        }
        a.value.assign(16, 0);  // the kernel's address, once it has one
        p.assigns.push_back(std::move(a));
        return true;
    }
    size_t size = a.field.size;
    if (p.record->size == 0) size = 0;  // text payload of any length
    if (!encode_value(a.field.kind, size, val, quoted, a.value, err)) return fail(key + ": " + err);
    p.assigns.push_back(std::move(a));
    return true;
}

bool Parser::payload(const std::vector<Tok> &toks, size_t from, uint32_t event_id, bool sending,
                     Payload &p) {
    p = Payload{};
    p.record = default_record(event_id);
    size_t i = from;
    if (i < toks.size() && toks[i].text.find('=') == std::string::npos) {
        p.record = find_record(toks[i].text);
        if (p.record == nullptr) {
            return fail("unknown record '" + toks[i].text + "'; expected one of: " +
                        record_names() + ", or len=N, or fields name=value");
        }
        p.record_given = true;
        ++i;
    }
    if (i < toks.size() && toks[i].text.starts_with("len=")) {
        uint64_t n = 0;
        if (!to_uint(std::string_view(toks[i].text).substr(4), 1u << 20, n)) {
            return fail("expected len=<bytes>, found '" + toks[i].text + "'");
        }
        p.len = static_cast<size_t>(n);
        p.len_given = true;
        if (!p.record_given) p.record = nullptr;  // raw bytes of that length
        if (p.record_given && p.record->size != 0 && p.record->size != p.len) {
            return fail("len=" + std::to_string(n) + " contradicts " + std::string(p.record->name) +
                        " (" + std::to_string(p.record->size) + " bytes)");
        }
        ++i;
    } else if (p.record != nullptr) {
        p.len = p.record->size;
    }
    if (sending && p.record == nullptr && !p.len_given) {
        return fail("event " + std::to_string(event_id) +
                    " has no record by default; expected a record name or len=<bytes>");
    }
    for (; i < toks.size(); ++i) {
        size_t eq = toks[i].text.find('=');
        if (eq == std::string::npos || eq == 0) {
            return fail("expected a field name=value, found '" + toks[i].text + "'");
        }
        if (!assign(toks[i], eq, p, sending)) return false;
    }
    return true;
}

// The name of a declared interface, new and of at most 12 letters and digits
// (the veth's far end adds its own name beside it).
bool Parser::iface_name(const std::string &name, IfaceDecl &d) {
    if (started_)
        return fail("an interface is declared before the run; expected it before the first step");
    if (name.empty() || name.size() > 12 || !std::all_of(name.begin(), name.end(), [](char c) {
            return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
        })) {
        return fail("expected an interface name of at most 12 letters and digits, found '" + name +
                    "'");
    }
    for (const IfaceDecl &other : sc_.ifaces) {
        if (other.name == name) return fail("interface " + name + " is declared twice");
    }
    d.line = line_;
    d.name = name;
    return true;
}

bool Parser::iface_ra(const std::vector<Tok> &toks) {
    if (toks.size() != 2) return fail("expected iface-ra <name> <ipv6 prefix>/64");
    IfaceDecl d;
    if (!iface_name(toks[0].text, d)) return false;
    const std::string &t = toks[1].text;
    const size_t slash = t.find('/');
    uint8_t bin[16];
    if (slash == std::string::npos || inet_pton(AF_INET6, t.substr(0, slash).c_str(), bin) != 1) {
        return fail("expected an IPv6 prefix such as 2001:db8:4::/64, found '" + t + "'");
    }
    if (t.substr(slash + 1) != "64") {
        return fail(
                "expected a /64 prefix: the kernel forms addresses from /64 prefixes only, "
                "found '" +
                t + "'");
    }
    if (std::any_of(bin + 8, bin + 16, [](uint8_t b) { return b != 0; })) {
        return fail("expected a prefix whose last 64 bits are zero, found '" + t + "'");
    }
    if (bin[0] == 0xff || (bin[0] == 0xfe && (bin[1] & 0xc0) == 0x80) ||
        std::all_of(bin, bin + 8, [](uint8_t b) { return b == 0; })) {
        return fail("expected a global or unique-local prefix, found '" + t + "'");
    }
    char text[INET6_ADDRSTRLEN];
    d.ra_prefix = inet_ntop(AF_INET6, bin, text, sizeof(text));
    sc_.ifaces.push_back(std::move(d));
    return true;
}

bool Parser::iface(const std::vector<Tok> &toks) {
    if (toks.size() < 2) return fail("expected iface <name> <ipv6 address>[/<prefix length>]...");
    IfaceDecl d;
    if (!iface_name(toks[0].text, d)) return false;
    for (size_t i = 1; i < toks.size(); ++i) {
        IfaceAddr a;
        std::string_view t = toks[i].text;
        if (size_t slash = t.find('/'); slash != std::string_view::npos) {
            uint64_t plen = 0;
            if (!to_uint(t.substr(slash + 1), 128, plen)) {
                return fail("expected a prefix length 0..128 after '/', found '" + std::string(t) +
                            "'");
            }
            a.prefix_len = static_cast<int>(plen);
            t = t.substr(0, slash);
        }
        a.addr = std::string(t);
        uint8_t bin[16];
        if (inet_pton(AF_INET6, a.addr.c_str(), bin) != 1) {
            return fail("expected an IPv6 address, found '" + a.addr + "'");
        }
        d.addrs.push_back(a);
    }
    sc_.ifaces.push_back(std::move(d));
    return true;
}

bool Parser::ril(const std::vector<Tok> &toks, Step &s) {
    const std::string what = toks.empty() ? "" : toks[0].text;
    if (what == "auto" && toks.size() == 1) {
        s.op = Op::RilAuto;
        return true;
    }
    if (what == "off" && toks.size() == 1) {
        s.op = Op::RilOff;
        return true;
    }
    if (what == "answer" && toks.size() >= 2) {
        s.op = Op::RilAnswer;
        uint64_t n = 0;
        if (toks[1].text == "*") {
            s.iface = -1;
        } else if (to_uint(toks[1].text, 1000, n)) {
            s.iface = static_cast<int32_t>(n);
        } else {
            return fail("expected ril answer <interface id or *> <field=value>..., found '" +
                        toks[1].text + "'");
        }
        s.payload = Payload{};
        s.payload.record = find_record("SetupDataCallResp");
        s.payload.len = s.payload.record->size;
        for (size_t i = 2; i < toks.size(); ++i) {
            size_t eq = toks[i].text.find('=');
            if (eq == std::string::npos || eq == 0) {
                return fail("expected a field name=value of SetupDataCallResp, found '" +
                            toks[i].text + "'");
            }
            if (!assign(toks[i], eq, s.payload, true)) return false;
        }
        return true;
    }
    if (what == "reply" && toks.size() >= 3) {
        s.op = Op::RilReply;
        if (!event(toks[1].text, s.event_id) || !event(toks[2].text, s.reply_id)) return false;
        return payload(toks, 3, s.reply_id, true, s.payload);
    }
    if (what == "ignore" && toks.size() == 2) {
        s.op = Op::RilIgnore;
        return event(toks[1].text, s.event_id);
    }
    return fail(
            "expected ril auto | ril off | ril answer <interface|*> <field=value>... | "
            "ril reply <request event> <answer event> [record|len=N] <field=value>... | "
            "ril ignore <request event>");
}

bool Parser::step(std::string_view keyword, std::string_view rest) {
    Step s;
    s.line = line_;
    s.source = std::string(keyword) + (rest.empty() ? "" : " ") + std::string(rest);
    std::vector<Tok> toks;
    if (keyword == "title") {
        return rest_text(rest, sc_.title, "a title");
    }
    if (keyword == "iface") {
        return tokens(rest, toks) && iface(toks);
    }
    if (keyword == "iface-ra") {
        return tokens(rest, toks) && iface_ra(toks);
    }
    if (keyword == "client") {
        if (!tokens(rest, toks)) return false;
        if (toks.size() != 1 || toks[0].text.empty()) return fail("expected client <name>");
        uint32_t id;
        uint64_t n;
        if (find_named(kPeerAliases, toks[0].text, id) ||
            find_named(kTaskNames, toks[0].text, id) || to_uint(toks[0].text, UINT32_MAX, n)) {
            return fail("'" + toks[0].text + "' names a task; expected a client name");
        }
        declared_.push_back(toks[0].text);
        PeerRef p;
        p.client = toks[0].text;
        mention(p);
        return true;
    }
    started_ = true;
    if (keyword == "property") {
        if (!tokens(rest, toks)) return false;
        if (toks.size() != 2) return fail("expected property <key> <value>");
        s.op = Op::Property;
        s.text = toks[0].text;
        s.value = toks[1].text;
    } else if (keyword == "announce") {
        if (!tokens(rest, toks)) return false;
        if (toks.empty() || toks.size() > 2) return fail("expected announce <peer> [<name>]");
        if (!peer(toks[0].text, s.peer)) return false;
        s.op = Op::Announce;
        if (toks.size() == 2) {
            s.text = toks[1].text;
        } else if (s.peer.is_client()) {
            s.text = s.peer.client;
        } else if (s.peer.task_id == TASK_RILDPROXY) {
            s.text = "rildproxy";
        } else {
            return fail("expected announce <peer> <name>: a task announces itself by name");
        }
        if (s.text.size() >= 132) return fail("a name of at most 131 characters is announced");
    } else if (keyword == "send") {
        if (!tokens(rest, toks)) return false;
        if (toks.size() < 2)
            return fail("expected send <peer> [to <task>] <event> [record|len=N] <field=value>...");
        if (!peer(toks[0].text, s.peer)) return false;
        size_t i = 1;
        s.target = TASK_DATAMNGR;
        if (toks[i].text == "to") {
            uint64_t n = 0;
            if (i + 1 >= toks.size()) return fail("expected to <task> <event>");
            const std::string &t = toks[i + 1].text;
            if (!find_named(kTargets, t, s.target) && !find_named(kTaskNames, t, s.target)) {
                if (!to_uint(t, UINT32_MAX, n))
                    return fail(
                            "expected a task of the data manager after 'to' (datamngr, dati, aux "
                            "or 402..404), found '" +
                            t + "'");
                s.target = static_cast<uint32_t>(n);
            }
            if (s.target != TASK_DATAMNGR && s.target != TASK_DATAMNGR_DATI_HDL &&
                s.target != TASK_DATAMNGR_AUX) {
                return fail(
                        "expected a task of the data manager after 'to' (datamngr, dati, aux or "
                        "402..404), found '" +
                        t + "'");
            }
            i += 2;
        }
        if (i >= toks.size()) return fail("expected an event after the peer");
        s.op = Op::Send;
        if (!event(toks[i].text, s.event_id)) return false;
        if (!payload(toks, i + 1, s.event_id, true, s.payload)) return false;
    } else if (keyword == "ril") {
        if (!tokens(rest, toks) || !ril(toks, s)) return false;
    } else if (keyword == "at") {
        s.op = Op::At;
        if (!rest_text(rest, s.text, "an AT command line")) return false;
    } else if (keyword == "at-register") {
        if (!tokens(rest, toks)) return false;
        if (toks.size() != 1) return fail("expected at-register <client name>");
        s.op = Op::AtRegister;
        s.text = toks[0].text;
    } else if (keyword == "urc") {
        s.op = Op::Urc;
        if (!rest_text(rest, s.text, "a URC line")) return false;
        if (s.text.size() >= 4096) return fail("a URC line of at most 4095 characters");
    } else if (keyword == "expect" || keyword == "expect-none") {
        if (!tokens(rest, toks)) return false;
        const bool none = keyword == "expect-none";
        if (toks.empty() || (none ? toks.size() > 2 : toks.size() < 2)) {
            return fail(none ? "expected expect-none <peer> [<event>]"
                             : "expected expect <peer> <event> [record|len=N] <field=value>...");
        }
        if (!peer(toks[0].text, s.peer)) return false;
        s.op = none ? Op::ExpectNone : Op::Expect;
        if (toks.size() >= 2 && !event(toks[1].text, s.event_id)) return false;
        if (!none && !payload(toks, 2, s.event_id, false, s.payload)) return false;
    } else if (keyword == "expect-pdn") {
        if (!tokens(rest, toks)) return false;
        bool negative = false;
        uint64_t n = 0;
        if (toks.empty() || !parse_cid(toks[0].text, negative, n)) {
            return fail("expected expect-pdn <cid> <field=value>... (a field of PdnInfo)");
        }
        s.op = Op::ExpectPdn;
        s.cid = static_cast<int32_t>(static_cast<uint32_t>(negative ? 0 - n : n));
        s.payload = Payload{};
        s.payload.record = &pdn_row_record();
        s.payload.len = s.payload.record->size;
        for (size_t i = 1; i < toks.size(); ++i) {
            size_t eq = toks[i].text.find('=');
            if (eq == std::string::npos || eq == 0) {
                return fail("expected a field name=value of PdnInfo, found '" + toks[i].text + "'");
            }
            if (!assign(toks[i], eq, s.payload, false)) return false;
        }
    } else if (keyword == "expect-at" || keyword == "expect-urc") {
        s.op = keyword == "expect-at" ? Op::ExpectAt : Op::ExpectUrc;
        if (!rest_text(rest, s.text, "the text the AT client receives")) return false;
    } else if (keyword == "expect-log" || keyword == "expect-no-log") {
        s.op = keyword == "expect-log" ? Op::ExpectLog : Op::ExpectNoLog;
        if (s.op == Op::ExpectLog && rest.starts_with("count=")) {
            size_t sp = rest.find_first_of(" \t");
            uint64_t n = 0;
            if (sp == std::string_view::npos || !to_uint(rest.substr(6, sp - 6), 100000, n)) {
                return fail("expected expect-log count=<n> <text>");
            }
            s.count = static_cast<int>(n);
            rest = trim(rest.substr(sp));
        }
        if (!rest_text(rest, s.text, "a text of a log line")) return false;
    } else {
        return fail("unknown step '" + std::string(keyword) +
                    "'; expected one of: " + std::string(kSteps));
    }
    sc_.steps.push_back(std::move(s));
    return true;
}

bool Parser::parse(std::string_view text, std::string &error) {
    sc_ = Scenario{};
    sc_.file = std::string(name_);
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t nl = text.find('\n', pos);
        std::string_view raw =
                text.substr(pos, nl == std::string_view::npos ? text.npos : nl - pos);
        pos = nl == std::string_view::npos ? text.size() + 1 : nl + 1;
        ++line_;
        std::string_view line = trim(raw);
        if (line.empty() || line.front() == '#') continue;
        size_t sp = line.find_first_of(" \t");
        std::string_view keyword = line.substr(0, sp);
        std::string_view rest =
                sp == std::string_view::npos ? std::string_view() : trim(line.substr(sp));
        if (!step(keyword, rest)) {
            error = error_;
            return false;
        }
    }
    if (sc_.steps.empty()) {
        line_ = 1;
        fail("the scenario has no steps; expected at least one step such as send or expect");
        error = error_;
        return false;
    }
    return true;
}

}  // namespace

std::string PeerRef::label() const {
    if (is_client()) return client;
    for (const NamedId &n : kPeerAliases) {
        if (n.id == task_id) return std::string(n.name);
    }
    return std::to_string(task_id);
}

std::vector<uint8_t> Payload::build() const {
    if (record != nullptr && record->size == 0) {
        std::vector<uint8_t> out;
        for (const Assign &a : assigns) out.assign(a.value.begin(), a.value.end());
        out.push_back(0);
        return out;
    }
    std::vector<uint8_t> out(len, 0);
    for (const Assign &a : assigns) {
        size_t n = std::min(a.value.size(), out.size() - std::min(out.size(), a.field.offset));
        std::copy_n(a.value.begin(), n, out.begin() + static_cast<long>(a.field.offset));
    }
    return out;
}

bool Scenario::is_expectation(const Step &s) const {
    switch (s.op) {
        case Op::Expect:
        case Op::ExpectNone:
        case Op::ExpectAt:
        case Op::ExpectUrc:
        case Op::ExpectLog:
        case Op::ExpectNoLog:
        case Op::ExpectPdn:
            return true;
        default:
            return false;
    }
}

bool event_id_by_name(std::string_view token, uint32_t &id) {
    uint64_t n = 0;
    if (to_uint(token, UINT32_MAX, n)) {
        id = static_cast<uint32_t>(n);
        return true;
    }
    return find_named(kEventNames, token, id);
}

bool parse_scenario(std::string_view name, std::string_view text, Scenario &out,
                    std::string &error) {
    Parser p(name, out);
    return p.parse(text, error);
}

bool parse_scenario_file(const std::string &path, Scenario &out, std::string &error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = path + ": cannot be read: " + errno_text(errno);
        return false;
    }
    std::ostringstream ss;
    ss << in.rdbuf();
    return parse_scenario(path, ss.str(), out, error);
}

}  // namespace dm::sim
