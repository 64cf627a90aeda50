#include "tools/orvex-backend/bag_file.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace orvex::backend {

namespace {

void substitute(nlohmann::ordered_json& value,
                const std::map<std::string, std::string>& variables) {
  if (value.is_structured()) {
    for (auto& child : value) substitute(child, variables);
  } else if (value.is_string()) {
    auto& text = value.get_ref<std::string&>();
    for (const auto& [name, replacement] : variables) {
      const std::string variable = "${" + name + "}";
      for (size_t at = text.find(variable); at != std::string::npos;
           at = text.find(variable, at + replacement.size())) {
        text.replace(at, variable.size(), replacement);
      }
    }
  }
}

}  // namespace

nlohmann::ordered_json BagFile::read(const std::string& baseUrl,
                                     std::map<std::string, std::string> variables) const {
  const std::string name = path_.string();
  std::error_code error;
  if (std::filesystem::is_directory(path_, error)) {
    throw std::runtime_error("the bag file " + name + " is a directory");
  }
  std::ifstream in(path_, std::ios::binary);
  if (!in) {
    throw std::runtime_error("cannot open the bag file " + name + ": " + std::strerror(errno));
  }
  std::stringstream text;
  text << in.rdbuf();
  if (in.bad()) throw std::runtime_error("cannot read the bag file " + name);

  nlohmann::ordered_json bag;
  try {
    bag = nlohmann::ordered_json::parse(text.str());
  } catch (const nlohmann::json::parse_error& parseError) {
    throw std::runtime_error("the bag file " + name + " is not valid JSON: " + parseError.what());
  }
  if (!bag.is_object()) {
    throw std::runtime_error("the bag file " + name + " holds a JSON " + bag.type_name() +
                             ", not an object");
  }
  variables.insert_or_assign("BASE_URL", baseUrl);
  substitute(bag, variables);
  return bag;
}

}  // namespace orvex::backend
