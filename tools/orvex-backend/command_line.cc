#include "tools/orvex-backend/command_line.h"

#include <charconv>
#include <stdexcept>

namespace orvex::backend {

namespace {

constexpr std::string_view kUsage = R"(Usage: orvex-backend [OPTION]...

A search back-end for trying orvexd and writing front-ends without a production server. It
serves the bag (the configuration document the daemon starts from), the connection warm-up,
searches and the other query kinds answered from a WordNet word list, and the images those
answers name; takes the daemon's feedback uploads; and lets you or a test make any endpoint
fail and look at every request it received.

Options:
  --port N               listen on port N (default 0: the kernel picks a free port)
  --bind ADDR            listen on address ADDR (default 127.0.0.1; 0.0.0.0 for all)
  --bag FILE             serve FILE as the bag, a JSON object (default: the bag.json shipped
                         with orvex-backend). FILE is read again on every request, so you can
                         edit it while the server runs; "${BASE_URL}" in any of its strings
                         becomes this server's URL, such as http://127.0.0.1:40123
  --cert FILE            serve HTTPS with this PEM certificate (needs --key)
  --key FILE             the PEM private key of the certificate
  --corpus DIR           answer searches from the WordNet database in DIR (default
                         /usr/share/wordnet, Debian package wordnet-base)
  --images-dir DIR       serve the image files under DIR at /images/ (default
                         /usr/share/icons/Adwaita, Debian package adwaita-icon-theme)
  --feedback-db FILE     keep accepted feedback uploads in the SQLite database FILE (created
                         when missing) rather than in memory
  --resource KEY=FILE    serve FILE as the resource document KEY (one of the ten keys below)
                         instead of the built-in one; repeatable
  --port-file FILE       once listening, write the port number to FILE
  --fault ENDPOINT=JSON  set a fault from the start, as the control API would; repeatable:
                           --fault 'bag={"status": 503, "count": 1}'
  --quiet                do not log requests on standard error
  --help                 show this help and exit

Endpoints (by name):
  bag            GET /bag             the bag, as application/json (any query string)
  warm           GET /warm            204, for the daemon to open connections early
  search         GET /search          the completion of the query item "q" and its word
                                      senses; with "qtype=zkw", suggested words; with a
                                      "context" or "ltype" item, a lookup of "q" (JSON, see
                                      README.md; 503 when the corpus could not be loaded)
  more           GET /more            page "page" (default 2) of the senses of "q"
  card           GET /card            sense "sense" (default 1) of "q" in detail
  images         GET /images/PATH     the image file PATH (PNG, SVG, JPEG, GIF or WebP)
                                      under --images-dir, with an ETag (304 on
                                      If-None-Match); 404 for anything else
  feedback       POST /feedback       an upload: a JSON document as raw deflate, with the
  crowdsourcing  POST /crowdsourcing  SHA-512 of the JSON (128 lower-case hex digits) in the
                                      header X-Zelmor-Digest; stored and answered 200, else
                                      400 with the reason
  KEY           GET /resources/KEY   the resource document KEY, one of autofill_tld_whitelist,
                                      installed_app_whitelist, qi_features,
                                      website_category_labels, lookup_hints_weekly,
                                      lookup_hints_monthly, glance_models, correction_dict,
                                      crowdsourcing_blacklist, crowdsourcing_whitelist; with an
                                      ETag (304 on If-None-Match)
  KEY-redirect  GET /r/KEY            302 to /resources/KEY?v=VERSION
Any other request gets 404. Each request is logged on standard error: the request line with
the status answered, then its headers.

A fault is a JSON object; every key is optional:
  "status": N         answer with status N and a short text body
  "delay_ms": N       wait N milliseconds before answering
  "drip_ms": N        send the body one byte at a time, N milliseconds apart
  "drop": true        close the connection halfway through the body
  "garbage": true     answer 200 application/json with bytes that are not JSON
  "body": "TEXT"      answer TEXT instead of the real body (application/json)
  "headers": {...}    add these headers to the answer, such as {"Cache-Control": "no-store"}
  "count": N          apply to the next N requests only (default: until cleared)

Control API (its requests are neither logged nor faulted):
  PUT    /_orvex/faults/ENDPOINT     set the endpoint's fault (body: fault JSON)   -> 204
  DELETE /_orvex/faults/ENDPOINT     clear it                                      -> 204
  DELETE /_orvex/faults              clear every fault                             -> 204
  GET    /_orvex/faults              the faults in force, by endpoint
  GET    /_orvex/requests[?since=N]  the requests received (those after number N)
  DELETE /_orvex/requests            forget them (numbers keep counting)
  GET    /_orvex/feedback[?since=ID] the stored uploads (those after id ID), oldest first
  DELETE /_orvex/feedback            forget them (ids keep counting)
For example:
  curl -X PUT --data '{"delay_ms": 2000, "count": 1}' http://127.0.0.1:PORT/_orvex/faults/bag

On start orvex-backend prints "orvex-backend listening on URL"; it runs until SIGINT or
SIGTERM and then exits with status 0. Status 2: the command line, certificate or bag cannot be
used; 1: it cannot listen.
)";

int parsePort(std::string_view text) {
  int port = -1;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size() || port < 0 || port > 65535) {
    throw std::invalid_argument("--port wants a number from 0 to 65535, not \"" +
                                std::string(text) + "\"");
  }
  return port;
}

std::pair<std::string, Fault> parseFault(std::string_view text) {
  const size_t equals = text.find('=');
  if (equals == std::string_view::npos || equals == 0) {
    throw std::invalid_argument("--fault wants ENDPOINT=JSON, not \"" + std::string(text) + "\"");
  }
  const std::string endpoint(text.substr(0, equals));
  try {
    return {endpoint, Fault::fromJson(nlohmann::json::parse(text.substr(equals + 1)))};
  } catch (const nlohmann::json::parse_error& error) {
    throw std::invalid_argument("--fault " + endpoint + ": not valid JSON: " + error.what());
  } catch (const std::invalid_argument& error) {
    throw std::invalid_argument("--fault " + endpoint + ": " + error.what());
  }
}

}  // namespace

CommandLine CommandLine::parse(const std::vector<std::string_view>& arguments) {
  CommandLine line;
  for (size_t i = 0; i < arguments.size(); ++i) {
    std::string_view option = arguments[i];
    std::optional<std::string_view> inlineValue;
    if (const size_t equals = option.find('='); option.starts_with("--") && equals != option.npos) {
      inlineValue = option.substr(equals + 1);
      option = option.substr(0, equals);
    }
    const auto value = [&]() -> std::string_view {
      const std::string_view given = inlineValue                ? *inlineValue
                                     : i + 1 < arguments.size() ? arguments[++i]
                                                                : std::string_view();
      if (given.empty()) throw std::invalid_argument(std::string(option) + " needs a value");
      return given;
    };
    const auto flag = [&] {
      if (inlineValue) throw std::invalid_argument(std::string(option) + " takes no value");
    };

    if (option == "--help" || option == "-h") {
      flag();
      line.help = true;
    } else if (option == "--quiet") {
      flag();
      line.server.quiet = true;
    } else if (option == "--port") {
      line.server.port = parsePort(value());
    } else if (option == "--bind") {
      line.server.bindAddress = value();
    } else if (option == "--bag") {
      line.bag = value();
    } else if (option == "--cert") {
      line.server.certificate = value();
    } else if (option == "--key") {
      line.server.privateKey = value();
    } else if (option == "--corpus") {
      line.corpus = value();
    } else if (option == "--images-dir") {
      line.imagesDirectory = value();
    } else if (option == "--feedback-db") {
      line.feedbackDatabase = value();
    } else if (option == "--port-file") {
      line.portFile = value();
    } else if (option == "--fault") {
      line.faults.push_back(parseFault(value()));
    } else if (option == "--resource") {
      const std::string_view text = value();
      const size_t equals = text.find('=');
      if (equals == 0 || equals == text.npos || equals + 1 == text.size()) {
        throw std::invalid_argument("--resource takes KEY=FILE");
      }
      line.resources.emplace_back(std::string(text.substr(0, equals)), text.substr(equals + 1));
    } else {
      throw std::invalid_argument("unknown option \"" + std::string(arguments[i]) + "\"");
    }
  }
  if (line.server.certificate.has_value() != line.server.privateKey.has_value()) {
    throw std::invalid_argument("--cert and --key go together");
  }
  return line;
}

std::string_view CommandLine::usage() { return kUsage; }

}  // namespace orvex::backend
