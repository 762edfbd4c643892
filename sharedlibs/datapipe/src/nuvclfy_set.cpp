// Rule sets: first-match search through the rule tree, action dispatch,
// walking and showing, the debug flag.
#include "nuvclfy.h"
#include "nuvclfy_match_priv.h"
#include "nuvclfy_priv.h"

namespace {

int g_debug_flag;

// The packet's fields are read once for the whole search, which follows
// the set's links as they are now.
nuv_clfy *search(nuv_clfy_set *set, const nuv_clfy_packet &packet) {
  dp::clfy::PacketFacts facts;
  dp::clfy::read_packet(packet, facts);
  return dp::clfy::first_applying(set->head, facts);
}

int walk(nuv_clfy *rule, int depth, nuv_clfy_walk_callback callback, void *arg) {
  for (; rule; rule = rule->next) {
    if (int rc = callback(rule, depth, arg)) return rc;
    if (int rc = walk(rule->children, depth + 1, callback, arg)) return rc;
  }
  return 0;
}

int show_rule(nuv_clfy *rule, int depth, void *) {
  nuv_clfy_show(depth, rule);
  return 0;
}

}  // namespace

int dp::clfy::execute_action(nuv_clfy *rule, void *arg, const nuv_clfy_packet &packet) {
  if (!rule || !rule->owner) return 0;
  const nuv_clfy_action *action = action_at(rule->action);
  if (!action || !action->execute) return 0;
  return action->execute(rule, arg, packet.eth_header, packet.eth_proto, packet.ip_header);
}

extern "C" {

nuv_clfy *nuv_clfy_get_clfy_from_set(nuv_clfy_set *set, uint8_t, const nuv_clfy_packet *packet) {
  return search(set, *packet);
}

int nuv_clfy_set_execute(nuv_clfy_set *set, void *arg, const nuv_clfy_packet *packet) {
  return dp::clfy::execute_action(search(set, *packet), arg, *packet);
}

int nuv_clfy_set_walk(nuv_clfy_set *set, nuv_clfy_walk_callback callback, void *arg) {
  return walk(set->head, 0, callback, arg);
}

int nuv_clfy_set_show(nuv_clfy_set *set) {
  walk(set->head, 0, show_rule, nullptr);
  return 0;
}

int nuv_clfy_set_debugflag(int value) {
  const int previous = g_debug_flag;
  g_debug_flag = value;
  return previous;
}

}  // extern "C"
