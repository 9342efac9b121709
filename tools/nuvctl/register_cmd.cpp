// nuvctl register / unregister: build a monitor definition from options (or take an id) and
// send it to the daemon's registration endpoint, so an operator can add and drop monitors
// without writing JSON by hand.
#include <jansson.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "command.h"

namespace nuvctl {

int PostBytes(const char* command, const std::string& topic, const std::string& bytes,
              bool check);  // post_cmd.cpp

namespace {

const char kRegisterTopic[] = "maintenance:register";
const char kUnRegisterTopic[] = "maintenance:unregister";

const char kRegisterUsage[] =
    "usage: nuvctl register --id ID --focus TARGET --condition COND --handler TOPIC [OPTIONS]\n"
    "\n"
    "Builds a monitor definition and posts it to maintenance:register, then prints the result\n"
    "word like 'nuvctl post'. The daemon watches the target from then on.\n"
    "\n"
    "required:\n"
    "  --id ID                 the monitor's id, used again to unregister it\n"
    "  --focus TARGET          system:0, processpoint:3, PATH:PID or PATH:* (every process)\n"
    "  --condition COND        e.g. C>90/60: processor over 90% within 60 seconds\n"
    "  --handler TOPIC         bus topic fired records go to, e.g. maintenance:reciver\n"
    "\n"
    "optional (defaults in brackets):\n"
    "  --agent-id TEXT         [empty]\n"
    "  --name TEXT             [manual]\n"
    "  --subscriber TEXT       [nuvctl]\n"
    "  --version TEXT          [1.0]\n"
    "  --product TEXT          [maintenance]\n"
    "  --product-version TEXT  [the version of nuvctl]\n"
    "  --dependent-id ID       [empty] the monitor this one runs under\n"
    "  --echo                  print the posted document before the result\n"
    "  --no-check              post without checking the definition here first\n"
    "  --help                  print this help\n"
    "\n"
    "The definition is checked here first with the library's own code (focus, handler, the\n"
    "condition's window and expression); a refused one is not posted and the reason printed.\n"
    "results: 0x00000000 registered, 0x84CE0001 refused by the daemon, 0x84CE0002 invalid\n"
    "exit codes: 0 the result was 0, 1 any other result, 2 usage error\n";

const char kUnRegisterUsage[] =
    "usage: nuvctl unregister ID\n"
    "\n"
    "Posts {\"id\": ID} to maintenance:unregister and prints the result word like\n"
    "'nuvctl post'. An unknown id is not an error: the result is 0 either way.\n"
    "\n"
    "options:\n"
    "  --help  print this help\n"
    "\n"
    "exit codes: 0 the result was 0, 1 any other result, 2 usage error\n";

// The compact text of `root`, which is released; empty when it cannot be had (not UTF-8).
std::string DumpAndFree(json_t* root) {
  if (root == nullptr) return "";
  char* text = json_dumps(root, JSON_COMPACT);
  std::string out(text != nullptr ? text : "");
  std::free(text);
  json_decref(root);
  return out;
}

}  // namespace

int RegisterMain(int argc, char** argv) {
  // Option -> JSON key, in the order the endpoint reads them.
  const std::pair<const char*, const char*> kKeys[] = {
      {"--id", "id"},
      {"--agent-id", "agent_id"},
      {"--name", "name"},
      {"--subscriber", "subscriber"},
      {"--version", "version"},
      {"--product", "product"},
      {"--product-version", "product_version"},
      {"--focus", "focus"},
      {"--handler", "handler"},
      {"--condition", "condition"},
      {"--dependent-id", "dependent_id"},
  };
  std::map<std::string, std::string> values = {
      {"--id", ""},           {"--agent-id", ""},        {"--name", "manual"},
      {"--subscriber", "nuvctl"}, {"--version", "1.0"},  {"--product", "maintenance"},
      {"--product-version", NUV_VERSION}, {"--focus", ""}, {"--handler", ""},
      {"--condition", ""},    {"--dependent-id", ""},
  };
  std::map<std::string, bool> given;
  std::map<std::string, bool> flags = {{"--echo", false}, {"--no-check", false}};
  const int parsed = ParseOptions("register", kRegisterUsage, argc, argv, values, given, flags);
  if (parsed >= 0) return parsed;
  for (const char* required : {"--id", "--focus", "--condition", "--handler"}) {
    if (!given[required]) return UsageError("register", std::string(required) + " is needed");
  }

  json_t* root = json_object();
  for (const auto& [option, key] : kKeys) {
    json_t* text = json_string(values[option].c_str());
    if (text == nullptr) {
      json_decref(root);
      return UsageError("register", std::string(option) + " must be UTF-8 text");
    }
    json_object_set_new(root, key, text);
  }
  const std::string document = DumpAndFree(root);
  if (flags["--echo"]) std::printf("%s\n", document.c_str());
  std::fflush(stdout);
  return PostBytes("register", kRegisterTopic, document, !flags["--no-check"]);
}

int UnRegisterMain(int argc, char** argv) {
  std::map<std::string, std::string> values;
  std::vector<std::string> operands;
  const int parsed =
      ParseCommandLine("unregister", kUnRegisterUsage, argc, argv, {}, values, operands);
  if (parsed != -1) return parsed;
  if (operands.empty()) return UsageError("unregister", "an ID is needed");
  if (operands.size() > 1) return UsageError("unregister", "unexpected argument '" + operands[1] + "'");
  const std::string& id = operands[0];
  const std::string document = DumpAndFree(json_pack("{s:s}", "id", id.c_str()));
  if (document.empty()) return UsageError("unregister", "ID must be UTF-8 text");
  return PostBytes("unregister", kUnRegisterTopic, document, true);
}

}  // namespace nuvctl
