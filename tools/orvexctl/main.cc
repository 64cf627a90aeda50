// orvexctl: talks to a running orvexd over D-Bus, for people at a shell and for scripts.
//
// One invocation is one bus connection, and so one client of the daemon: every command first
// configures that client (identifier and agent from the command line), then does its one thing.
// Exit status: 0 on success, 1 when the bus or the daemon fails the call, 2 when the command
// line or the input it names is wrong.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "orvexd/base/orvex_logging.h"
#include "orvexd/client/orvex_client.h"
#include "tools/orvexctl/orvexctl.h"

namespace orvex::ctl {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

// How long `configure` waits for the daemon's BagDidLoad after the configuration was accepted.
constexpr auto kBagDidLoadWait = 3s;

constexpr const char* kHelp = R"(orvexctl - talk to orvexd, the on-device search daemon

orvexd runs on the D-Bus session bus under the name com.zelmor.orvexd. Front-ends
(search screen, browser, assistant, ...) configure themselves as clients, then ask
it for search results and report what the user did with them. orvexctl is such a
client: each run opens one bus connection, configures it (so the daemon knows it
by --identifier and --agent) and runs one command.

Usage: orvexctl [OPTIONS] COMMAND [ARGUMENTS]

Commands:
  configure           configure and show the endpoint and the bag the daemon sends back
                        orvexctl configure
  bag                 the bag (the back-end's configuration) as seen by this agent
                        orvexctl --agent news/1.0 bag
  search QUERY        run one search and show the completed query and first results
      --query-id N      the query id to send (default 1; every query takes it)
      --verbose         ask for the HTTP exchange too, and show it (every query but flight)
                        orvexctl search "weather in lisbon" --verbose
  zkw                 the zero-keyword suggestions (what to show before anything is typed)
                        orvexctl zkw
  more URL            the next results of an answer: URL is the more-results URL it named
                        orvexctl more 'http://127.0.0.1:8080/more?q=light&page=2'
  card [QUERY]        the card (details) for QUERY
                        orvexctl card light
  lookup TEXT         look TEXT up, as the lookup panel does for selected text
      --context APP     the application the text was selected in (default: --identifier)
      --domain DOMAIN   the domain the application hints at
                        orvexctl lookup serendipity --context org.example.reader
  flight CODE-NUMBER  the flights of the daemon's flight data file with that carrier code
                      and number; flight --id ID, the flight with that identifier
                        orvexctl flight ZL-12
  images URL...       the bytes the daemon holds for each image URL (fetching those it
                      lacks, from hosts its answers named, for up to --timeout ms,
                      default 5000), saved as numbered files; prints size and type
      --out DIR         where the files go (default: the current directory)
                        orvexctl images http://127.0.0.1:8080/images/48x48/legacy/starred.png
  sessions            the clients the daemon knows: identifier and agent
                        orvexctl sessions
  resources           the bag's data files the daemon keeps: URL, version, size and age
                        orvexctl resources
  resource ID         the bytes of one of them, read through the descriptor the daemon sends
      --out FILE        where they go (default: standard output)
                        orvexctl resource autofill_tld_whitelist --out tlds.txt
  counters [PREFIX]   the daemon's diagnostic counters, sorted, those starting with PREFIX
                        orvexctl counters com.zelmor.orvexd.bag
  feedback            the records of the open feedback session, as JSON
                        orvexctl feedback
  report FILE|-       send one feedback record (a JSON object with "$class") from FILE
                      or standard input; it is checked locally before it is sent
      --event NAME      the event name to send with it (default: the record's class)
      --query-id N      the query id the record belongs to (default 0)
                        echo '{"$class": "NBStartSearchFeedback", ...}' | orvexctl report -
  flusher watch       print each feedback record clients report, as it arrives, until
                      interrupted (or for --timeout milliseconds)
                        orvexctl flusher watch
  flusher dump        flush every open session and upload it now; print each upload
                      body's size (--json: its JSON) and end when the daemon is done
                        orvexctl --json flusher dump
  flusher stop        pause the scheduled uploads until the next dump
                        orvexctl flusher stop
  activity run ID     run a registered background activity now
                        orvexctl activity run com.zelmor.orvexd.flusher.background
  subscriptions list  the subscriptions the next search carries (provider, type, domain)
  subscriptions publish INFO
                      publish orvexctl's own subscription: JSON or a key-value list with
                      type, expires (seconds from now) and optionally domain
                        orvexctl subscriptions publish 'type=premium, expires=3600'
  subscriptions withdraw
                      withdraw orvexctl's subscription
  subscriptions account-status N
                      set the media store's account status (3: subscribed); only for
                      the application the ORVMediaStoreIdentifier default names
  dp                  the differential-privacy reports the daemon keeps on this device:
                      per key digest, how many and their size (never their contents), and
                      the privacy budget spent today; reads the files, needs no daemon
                        orvexctl dp

Options (anywhere on the command line):
  --identifier ID     client identifier to configure (default com.zelmor.orvexctl)
  --agent UA          user agent to configure (default orvexctl/1.0)
  --address BUS       D-Bus address to use instead of the session bus
                        (for example unix:path=/tmp/orvexd-demo-abc/bus)
  --json              print machine-readable JSON on standard output
  --timeout MS        how long to wait for each answer, in milliseconds (default 25000;
                      flusher dump and stop wait 60000 for the daemon to finish)
  --help              this text

The flusher and activity commands are for processes of the daemon's own user; others
are refused with com.zelmor.orvexd.Error.AccessDenied.

Exit status: 0 success; 1 the bus or the daemon failed the call (the D-Bus error is
on standard error); 2 a wrong command line or an unusable input record.
)";

int64_t parseInteger(const std::string& option, const std::string& text) {
  try {
    size_t used = 0;
    const long long value = std::stoll(text, &used);
    if (used == text.size()) return value;
  } catch (const std::exception&) {
  }
  throw UsageError{option + " needs an integer, not \"" + text + "\""};
}

// The options that take a text, and those that are switches, by name.
constexpr std::pair<std::string_view, std::string Options::*> kTextOptions[] = {
    {"--identifier", &Options::identifier},
    {"--agent", &Options::agent},
    {"--address", &Options::address}};
constexpr std::pair<std::string_view, std::optional<std::string> Options::*>
    kOptionalTextOptions[] = {{"--event", &Options::event},
                              {"--context", &Options::context},
                              {"--domain", &Options::domain},
                              {"--id", &Options::flightId},
                              {"--out", &Options::outputDirectory}};
constexpr std::pair<std::string_view, bool Options::*> kFlags[] = {
    {"--json", &Options::json}, {"--help", &Options::help}, {"--verbose", &Options::verbose}};

template <class Table>
const auto* findOption(const Table& table, std::string_view name) {
  const auto found = std::find_if(std::begin(table), std::end(table),
                                  [&](const auto& entry) { return entry.first == name; });
  return found == std::end(table) ? nullptr : &*found;
}

Options parseCommandLine(int argc, char** argv) {
  Options options;
  std::vector<std::string> words(argv + 1, argv + argc);
  for (size_t i = 0; i < words.size(); ++i) {
    std::string word = words[i];
    if (word == "-" || !word.starts_with("--")) {
      if (options.command.empty()) {
        options.command = word;
      } else {
        options.arguments.push_back(word);
      }
      continue;
    }
    if (word == "--") {  // everything after is an argument (a query that starts with --)
      for (++i; i < words.size(); ++i) options.arguments.push_back(words[i]);
      break;
    }
    std::optional<std::string> inlineValue;
    if (const auto equals = word.find('='); equals != std::string::npos) {
      inlineValue = word.substr(equals + 1);
      word.resize(equals);
    }
    auto value = [&]() -> std::string {
      if (inlineValue) return *inlineValue;
      if (i + 1 >= words.size()) throw UsageError{word + " needs a value"};
      return words[++i];
    };
    auto flag = [&] {
      if (inlineValue) throw UsageError{word + " takes no value"};
      return true;
    };
    if (const auto* text = findOption(kTextOptions, word)) {
      options.*(text->second) = value();
    } else if (const auto* optional = findOption(kOptionalTextOptions, word)) {
      options.*(optional->second) = value();
    } else if (const auto* onOff = findOption(kFlags, word)) {
      options.*(onOff->second) = flag();
    } else if (word == "--timeout") {
      const auto ms = parseInteger(word, value());
      if (ms <= 0) throw UsageError{"--timeout needs a positive number of milliseconds"};
      options.timeout = std::chrono::milliseconds(ms);
    } else if (word == "--query-id") {
      options.queryId = parseInteger(word, value());
    } else {
      throw UsageError{"unknown option " + word};
    }
  }
  if (options.identifier.empty()) throw UsageError{"--identifier must not be empty"};
  if (options.agent.empty()) throw UsageError{"--agent must not be empty"};
  return options;
}

}  // namespace

// ---- output helpers ----

void printJson(const nlohmann::json& value) { std::cout << value.dump(2) << "\n"; }

int busFailure(const std::string& what, const ClientError& error) {
  std::cerr << "orvexctl: " << what << " failed: " << error.name << ": " << error.message << "\n";
  if (error.name == "org.freedesktop.DBus.Error.ServiceUnknown" ||
      error.name == "org.freedesktop.DBus.Error.NameHasNoOwner") {
    std::cerr << "hint: orvexd (com.zelmor.orvexd) is not running on this bus, and the bus "
                 "could not start it; start orvexd or pass --address for the bus it runs on\n";
  } else if (error.name == "org.freedesktop.DBus.Error.NoReply") {
    std::cerr << "hint: the daemon did not answer in time; a longer --timeout may help\n";
  }
  return kExitFailure;
}

json errorJson(const std::optional<OrvexError>& error) {
  if (!error) return nullptr;
  return json{{"domain", error->domain}, {"code", error->code}, {"reason", error->reason}};
}

std::string describeError(const OrvexError& error) {
  return error.domain + " code " + std::to_string(error.code) + ": " + error.reason;
}

namespace {

// The parts of a bag worth showing: version, switch, and the main URLs.
json bagSummary(const ORVBag& bag) {
  json summary{{"version", bag.version()}, {"enabled", bag.isEnabled()}};
  const std::pair<const char*, std::optional<std::string>> urls[] = {
      {"search_url", bag.searchURL()},     {"more_results_url", bag.moreResultsURL()},
      {"card_url", bag.cardURL()},         {"warm_url", bag.warmURL()},
      {"feedback_url", bag.feedbackURL()},
  };
  json urlObject = json::object();
  for (const auto& [name, url] : urls) {
    if (url) urlObject[name] = *url;
  }
  summary["urls"] = std::move(urlObject);
  return summary;
}

void printBagSummary(const ORVBag& bag) {
  std::cout << "bag version " << (bag.version().empty() ? "(none)" : bag.version()) << ", "
            << (bag.isEnabled() ? "enabled" : "disabled") << " for " << bag.userAgent() << "\n";
  const auto summary = bagSummary(bag);
  for (const auto& [name, url] : summary["urls"].items()) {
    std::cout << "  " << name << ": " << url.get<std::string>() << "\n";
  }
}

// ---- commands ----

int runConfigure(Session& session, const Options& options) {
  auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(kBagDidLoadWait);
  if (options.timeout) wait = std::min(wait, *options.timeout);
  const auto loaded = session.waitForBagDidLoad(wait);
  if (options.json) {
    json out{{"endpoint", session.endpoint()}, {"bagDidLoad", nullptr}};
    if (loaded) {
      out["bagDidLoad"] = {{"bag", loaded->bag ? bagSummary(*loaded->bag) : json(nullptr)},
                           {"error", errorJson(loaded->error)}};
    }
    printJson(out);
    return kExitOk;
  }
  std::cout << "configured " << options.identifier << " (" << options.agent << "), endpoint "
            << session.endpoint() << "\n";
  if (!loaded) {
    std::cout << "no BagDidLoad within " << wait.count() << " ms\n";
    return kExitOk;
  }
  if (loaded->bag) printBagSummary(*loaded->bag);
  if (!loaded->bag) std::cout << "BagDidLoad without a bag\n";
  if (loaded->error) std::cout << "bag error: " << describeError(*loaded->error) << "\n";
  return kExitOk;
}

int runBag(Session& session, const Options& options) {
  auto answer = session.client().bag();
  if (!answer) return busFailure("Bag", answer.error());
  const auto& [bag, error] = answer.value();
  if (options.json) {
    // The bag exactly as the daemon sent it; an error without a bag goes to standard error.
    if (bag) printJson(bag->rawBag());
    if (error) std::cerr << "orvexctl: bag error: " << describeError(*error) << "\n";
    return bag ? kExitOk : kExitFailure;
  }
  if (bag) printBagSummary(*bag);
  if (error) {
    std::cerr << "orvexctl: bag error: " << describeError(*error) << "\n";
    return kExitFailure;
  }
  if (!bag) std::cout << "the daemon has no bag\n";
  return kExitOk;
}

int runSessions(Session& session, const Options& options) {
  auto sessions = session.client().listSessions();
  if (!sessions) return busFailure("ListSessions", sessions.error());
  auto field = [](const std::map<std::string, std::string>& entry, const std::string& key) {
    auto it = entry.find(key);
    return it == entry.end() ? std::string() : it->second;
  };
  if (options.json) {
    json out = json::array();
    for (const auto& entry : sessions.value()) out.push_back(entry);
    printJson(out);
    return kExitOk;
  }
  size_t width = std::string_view("IDENTIFIER").size();
  for (const auto& entry : sessions.value())
    width = std::max(width, field(entry, "identifier").size());
  auto row = [&](const std::string& identifier, const std::string& agent) {
    std::cout << identifier << std::string(width - identifier.size() + 2, ' ') << agent << "\n";
  };
  row("IDENTIFIER", "AGENT");
  for (const auto& entry : sessions.value()) row(field(entry, "identifier"), field(entry, "agent"));
  return kExitOk;
}

int runCounters(Session& session, const Options& options) {
  const std::string prefix = options.arguments.empty() ? "" : options.arguments[0];
  auto counters = session.client().counters();
  if (!counters) return busFailure("GetCounters", counters.error());
  std::map<std::string, int64_t> shown;  // std::map: sorted by name
  for (const auto& [name, value] : counters.value()) {
    if (name.starts_with(prefix)) shown.emplace(name, value);
  }
  if (options.json) {
    printJson(shown);
    return kExitOk;
  }
  size_t width = 0;
  for (const auto& entry : shown) width = std::max(width, entry.first.size());
  for (const auto& [name, value] : shown) {
    std::cout << name << std::string(width - name.size() + 2, ' ') << value << "\n";
  }
  return kExitOk;
}

int runFeedback(Session& session, const Options&) {
  auto records = session.client().feedback();
  if (!records) return busFailure("Feedback", records.error());
  auto parsed = json::parse(records.value(), nullptr, false);
  if (parsed.is_discarded()) {
    std::cerr << "orvexctl: the daemon's feedback is not JSON\n";
    std::cout << records.value() << "\n";
    return kExitFailure;
  }
  printJson(parsed);  // JSON either way
  return kExitOk;
}

std::string readInput(const std::string& path) {
  std::ostringstream text;
  if (path == "-") {
    text << std::cin.rdbuf();
    return text.str();
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) throw UsageError{"cannot read " + path};
  text << file.rdbuf();
  return text.str();
}

// Reads and checks the record `report` sends, so that a bad one never reaches the bus.
FeedbackRecordPtr loadRecord(const std::string& path) {
  const auto record = NBFeedback::fromDBusText(readInput(path));
  if (!record) {
    throw UsageError{(path == "-" ? std::string("standard input") : path) +
                     " is not a feedback record: " + record.error().reason};
  }
  return record.value();
}

int runReport(Session& session, const Options& options) {
  const auto& feedback = *options.record;
  const std::string event = options.event.value_or(std::string(feedback.className()));
  const int64_t queryId = options.queryId.value_or(0);
  auto sent = session.client().reportEvent(event, queryId, feedback);
  if (!sent) return busFailure("ReportEvent", sent.error());
  // ReportEvent has no reply; a round trip after it makes sure it reached the daemon before the
  // connection (and with it the client) goes away.
  auto ping = session.client().ping();
  if (!ping) return busFailure("Ping", ping.error());
  if (options.json) {
    printJson({{"reported", feedback.className()}, {"event", event}, {"queryId", queryId}});
  } else {
    std::cout << "reported " << feedback.className() << " (event \"" << event << "\", query id "
              << queryId << ")\n";
  }
  return kExitOk;
}

// The request kind a query command sends.
std::string requestKindOf(std::string_view command, bool flightById) {
  if (command == "flight") return flightById ? "flightLookup" : "flightSearch";
  if (command == "zkw") return "zeroKeyword";
  if (command == "more") return "moreResults";
  return std::string(command);
}

struct Command {
  std::string_view name;
  int (*run)(Session&, const Options&);
  size_t minArguments;
  size_t maxArguments;
  std::string_view usage;
};

constexpr Command kCommands[] = {
    {"configure", runConfigure, 0, 0, "configure"},
    {"bag", runBag, 0, 0, "bag"},
    {"search", runQuery, 1, 1, "search QUERY [--query-id N] [--verbose]"},
    {"zkw", runQuery, 0, 0, "zkw [--query-id N] [--verbose]"},
    {"more", runQuery, 1, 1, "more URL [--query-id N] [--verbose]"},
    {"card", runQuery, 0, 1, "card [QUERY] [--query-id N] [--verbose]"},
    {"lookup", runQuery, 1, 1,
     "lookup TEXT [--context APP] [--domain DOMAIN] [--query-id N] [--verbose]"},
    {"flight", runQuery, 0, 1, "flight CODE-NUMBER | flight --id ID"},
    {"images", runImages, 1, 256, "images URL... [--out DIR]"},
    {"sessions", runSessions, 0, 0, "sessions"},
    {"resources", runResources, 0, 0, "resources"},
    {"resource", runResource, 1, 1, "resource ID [--out FILE]"},
    {"counters", runCounters, 0, 1, "counters [PREFIX]"},
    {"feedback", runFeedback, 0, 0, "feedback"},
    {"report", runReport, 1, 1, "report FILE|- [--event NAME] [--query-id N]"},
    {"flusher", runFlusher, 1, 1, "flusher watch|dump|stop"},
    {"activity", runActivity, 2, 2, "activity run ID"},
    {"subscriptions", runSubscriptions, 1, 2,
     "subscriptions list|withdraw | subscriptions publish INFO | subscriptions account-status N"},
    // Reads local files: run without a session.
    {"dp", nullptr, 0, 0, "dp"},
};

int run(int argc, char** argv) {
  Options options;
  const Command* command = nullptr;
  try {
    options = parseCommandLine(argc, argv);
    if (options.help) {
      std::cout << kHelp;
      return kExitOk;
    }
    if (options.command.empty()) throw UsageError{"no command given"};
    for (const auto& candidate : kCommands) {
      if (candidate.name == options.command) command = &candidate;
    }
    if (command == nullptr) throw UsageError{"unknown command \"" + options.command + "\""};
    const auto count = options.arguments.size();
    if (count < command->minArguments || count > command->maxArguments) {
      throw UsageError{"usage: orvexctl [OPTIONS] " + std::string(command->usage)};
    }
    const bool isQuery = command->run == runQuery;
    const bool isNetworkQuery = isQuery && command->name != "flight";
    if (options.queryId && !isQuery && command->name != "report") {
      throw UsageError{"--query-id is for queries and report"};
    }
    if (options.verbose && !isNetworkQuery) throw UsageError{"--verbose is for network queries"};
    if (options.event && command->name != "report") throw UsageError{"--event is for report"};
    if ((options.context || options.domain) && command->name != "lookup") {
      throw UsageError{"--context and --domain are for lookup"};
    }
    if (options.flightId && command->name != "flight") throw UsageError{"--id is for flight"};
    if (options.outputDirectory && command->name != "images" && command->name != "resource") {
      throw UsageError{"--out is for images and resource"};
    }
    if (command->name == "flight" && options.flightId.has_value() == (count == 1)) {
      throw UsageError{"usage: orvexctl [OPTIONS] " + std::string(command->usage)};
    }
    if (isQuery) options.kind = requestKindOf(command->name, options.flightId.has_value());
    const auto& first = options.arguments.empty() ? std::string() : options.arguments[0];
    if ((command->name == "flusher" && first != "watch" && first != "dump" && first != "stop") ||
        (command->name == "activity" && first != "run") ||
        (command->name == "subscriptions" && !subscriptionsArgumentsValid(options.arguments))) {
      throw UsageError{"usage: orvexctl [OPTIONS] " + std::string(command->usage)};
    }

    if (command->name == "report") options.record = loadRecord(options.arguments[0]);
    if (command->run == nullptr) return runDp(options);

    Session session(options);
    if (auto failure = session.open()) return *failure;
    return command->run(session, options);
  } catch (const UsageError& error) {
    std::cerr << "orvexctl: " << error.message << "\n"
              << "Try 'orvexctl --help' for the commands and options.\n";
    return kExitUsage;
  }
}

}  // namespace
}  // namespace orvex::ctl

int main(int argc, char** argv) {
  // The client library logs what it refuses; orvexctl says it itself, once, so the library's
  // lines stay out of the way unless asked for.
  if (std::getenv("ORVEXD_LOG_LEVEL") == nullptr) orvex::setLogThreshold(orvex::LogLevel::kFault);
  return orvex::ctl::run(argc, argv);
}
