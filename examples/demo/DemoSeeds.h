// The sample app's seeds for its emulator: what the service has for the session. Kept apart from
// the session's script so that tests/emulator checks each against the seed schema.
#pragma once

#include <string>

namespace DemoSeeds {

// Logs stay on the device; batches of 30.
inline std::string config() { return R"({"config": {"l_e": 0, "e_b_c": 30}})"; }

// Three messages the service has for every device: a day, an hour and a minute before `now`.
inline std::string inbox(double now) {
  const auto message = [](const std::string& cid, double created, const std::string& alert, const std::string& extra) {
    return R"({"cid": ")" + cid + R"(", "c_cr_t": )" + std::to_string(created) + R"(, "data": {"aps": {"alert": )" +
           alert + R"(}, "kovantis": {"cid": ")" + cid + R"("}, "app_extra": )" + extra + "}}";
  };
  return R"({"inbox": {"messagesInfo": [)" +
         message("welcome", now - 86400, R"("Welcome to Kovantis Store! Your first delivery is on us.")",
                 R"({"screen": "home"})") +
         ", " +
         message(
             "sale", now - 3600,
             R"({"title": "Flash sale", "body": "Flash sale: 30% off running shoes until midnight, while stocks last."})",
             R"({"screen": "offers", "code": "RUN30"})") +
         ", " + message("order", now - 60, R"("Your order A-77 has shipped.")", R"({"screen": "orders"})") + "]}}";
}

// The shop's in-app campaigns: a spring sale with a banner for the home screen, a cart offer the
// "ADD_TO_CART" event triggers, and a welcome the app draws itself. One minute between in-apps.
inline std::string inApps(const std::string& imagesURL) {
  return R"({"inapps": {"minimum_delay_bw_inapps": 1, "event_list": ["ADD_TO_CART", "WISHLIST_ADD"], "campaign_info": [
      {"cid": "spring-sale", "status": "active", "type": "general", "ttl": 4102444800, "max_times": 3, "priority": 1,
       "show_only_screen": "HomeViewController", "widgets": [
         {"id": 1, "type": "image", "content": ")" +
         imagesURL + R"(/banner.png"},
         {"id": 2, "type": "text", "content": "Spring sale: 20% off everything in the garden shop, this week only."},
         {"id": 3, "type": "button", "content": "Shop the sale", "primary": true, "action": [
            {"tag": "m_track", "track": "iOS_IN_APP_CLICKED"},
            {"tag": "m_nav", "screen": "GardenShop", "extras": {"sale": "spring"}},
            {"tag": "m_dismiss"}]},
         {"id": 4, "type": "closebutton", "action": [{"tag": "m_dismiss"}]}]},
      {"cid": "welcome-back", "status": "active", "type": "self_handled", "ttl": 4102444800, "max_times": 1,
       "priority": 2, "content": "{\"headline\": \"Welcome back, Ada\"}"}]},
    "campaigns": {"push-welcome": {"cid": "push-welcome", "status": "active", "type": "general", "ttl": 4102444800,
       "max_times": 1, "widgets": [
         {"id": 1, "type": "text", "content": "Welcome in! Your first delivery is on us."},
         {"id": 2, "type": "button", "content": "Thanks", "primary": true, "action": [{"tag": "m_dismiss"}]}]},
      "push-nudge": {"cid": "push-nudge", "status": "active", "type": "general", "align": "embedded",
       "ttl": 4102444800, "max_times": 1, "widgets": [
         {"id": 1, "type": "text", "content": "Free delivery on everything today."},
         {"id": 2, "type": "button", "content": "Got it", "action": [{"tag": "m_dismiss"}]}]}},
    "smart_triggers": {"WISHLIST_ADD": {"cid": "wishlist-note", "status": "active", "type": "self_handled",
       "ttl": 4102444800, "max_times": 1, "content": "{\"headline\": \"Saved for later\"}"},
      "ADD_TO_CART": {"cid": "cart-offer", "status": "active", "type": "smart",
       "ttl": 4102444800, "max_times": 2, "align": "bottom", "widgets": [
         {"id": 1, "type": "text", "content": "Add a second pair and save 10%."},
         {"id": 2, "type": "rating", "properties": {"maxRating": 5, "defaultRating": 4}},
         {"id": 5, "type": "view", "buttonarray": [
           {"id": 3, "type": "button", "content": "Add", "action": [{"tag": "m_copy", "value": "PAIR10"},
                                                                   {"tag": "m_dismiss"}]},
           {"id": 4, "type": "button", "content": "Not now", "action": [{"tag": "m_dismiss"}]}]}]}}})";
}

// Two campaigns at the Gate (one on arrival, one on leaving), one at the station, one out of town.
inline std::string geofences() {
  return R"({"geofences": {"search_radius": 5000, "fencesInfo": [
      {"geoId": "gate-arrival", "lat": 52.51630, "lng": 13.37770, "distance": 120, "transitionType": "enter"},
      {"geoId": "gate-goodbye", "lat": 52.51630, "lng": 13.37770, "distance": 120, "transitionType": "exit"},
      {"geoId": "station", "lat": 52.52500, "lng": 13.36940, "distance": 200, "transitionType": "enter"},
      {"geoId": "lakeside", "lat": 52.39880, "lng": 13.06560, "distance": 300, "transitionType": "enter"}]}})";
}

}  // namespace DemoSeeds
