"""The C test's session again, from Python through ctypes, as a foreign-language binding would run
it: every function declared from the headers alone (kovantis_ctypes.py), the simulated device's
ports handed to the SDK through the C tables, the emulator asked what it stored.

  python_session_test.py --headers include/kovantis --library libkovantis_c.so --library libkovantis_sim_c.so
"""

import argparse
import ctypes
import json
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from kovantis_ctypes import Kovantis  # noqa: E402

failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
        print("FAILED:", what, file=sys.stderr)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--headers", required=True)
    parser.add_argument("--library", action="append", required=True)
    args = parser.parse_args()
    kov = Kovantis([os.path.join(args.headers, h) for h in ("kovantis_c.h", "kovantis_sim_c.h")], args.library)
    check(not kov.missing, "every function of the headers is exported: missing %s" % kov.missing)
    check(len(kov.header.functions) > 100, "the headers were read: %d functions" % len(kov.header.functions))

    def must(status, what):
        if status != kov.KOV_OK:
            raise SystemExit("%s failed (%d): %s" % (what, status, kov.kov_last_error().decode()))

    keep = []  # callbacks and texts the SDK holds pointers to

    def callback(type_name, fn):
        made = kov.type(type_name)(fn)
        keep.append(made)
        return made

    def text_arg(value):
        encoded = value.encode()
        keep.append(encoded)
        return encoded

    # The device, the emulator and the device's ports pointed at it.
    device = ctypes.c_void_p()
    must(kov.kov_sim_device_create(b'{"bundleIdentifier": "com.example.python"}', ctypes.byref(device)), "device")
    emulator = ctypes.c_void_p()
    must(kov.kov_emulator_start(None, ctypes.byref(emulator)), "emulator")
    seed = {
        "config": {"e_b_c": 30},
        "inapps": {"event_list": ["ADD_TO_CART"], "campaign_info": [
            {"cid": "home-banner", "status": "active", "type": "general", "ttl": 4102444800,
             "show_only_screen": "NeverShown", "widgets": [{"id": 1, "type": "text", "content": "Hi"}]}]},
        "smart_triggers": {"ADD_TO_CART": {
            "cid": "cart-offer", "status": "active", "type": "smart", "ttl": 4102444800, "max_times": 2,
            "widgets": [{"id": 1, "type": "text", "content": "Add a second pair and save 10%."},
                        {"id": 2, "type": "button", "content": "Add", "primary": True, "action": [
                            {"tag": "m_track", "track": "iOS_IN_APP_CLICKED"},
                            {"tag": "m_nav", "screen": "Cart", "extras": {"from": "offer"}},
                            {"tag": "m_dismiss"}]}]}},
        "inbox": {"messagesInfo": [{"cid": "welcome", "c_cr_t": int(time.time()) - 60, "data": {
            "aps": {"alert": "Welcome!"}, "kovantis": {"cid": "welcome"}, "app_extra": {"screen": "home"}}}]},
    }
    must(kov.kov_emulator_seed(emulator, json.dumps(seed).encode()), "seed")
    port = ctypes.c_int()
    must(kov.kov_emulator_port(emulator, ctypes.byref(port)), "port")

    ports = kov.type("kov_platform")()
    must(kov.kov_sim_device_ports(device, ctypes.byref(ports)), "ports")
    local = text_arg("127.0.0.1")
    ports.endpoints.scheme = text_arg("http")
    ports.endpoints.api_host = ports.endpoints.india_api_host = local
    ports.endpoints.inbox_host = ports.endpoints.log_host = local
    ports.endpoints.port = port.value
    ports.endpoints.timeout_seconds = 5
    must(kov.kov_platform_install(ctypes.byref(ports)), "install")
    must(kov.kov_debug(2), "debug")

    state = {"token": False, "flushed": None, "clicked": None}

    def on_token(_ctx, token, length):
        state["token"] = kov.kov_register_for_push(token, length) == kov.KOV_OK

    def on_response(_ctx, action, payload, attachments):
        kov.kov_did_receive_notification_response(action, payload, attachments)

    delegate = kov.type("kov_sim_app_delegate")()
    delegate.registered = type(delegate.registered)(on_token)
    delegate.notification_response = type(delegate.notification_response)(on_response)
    keep.extend([delegate.registered, delegate.notification_response])
    must(kov.kov_sim_device_set_app_delegate(device, ctypes.byref(delegate)), "app delegate")
    must(kov.kov_sim_device_add_openable_scheme(device, b"kovtest"), "scheme")

    def wait(condition, seconds=10):
        met = ctypes.c_int()
        cond = callback("kov_sim_condition", lambda _ctx: 1 if condition() else 0)
        must(kov.kov_sim_device_run_main_until(device, cond, None, seconds, ctypes.byref(met)), "wait")
        return met.value == 1

    # Start.
    must(kov.kov_sim_device_lifecycle(device, kov.KOV_SIM_LAUNCH), "launch")
    must(kov.kov_initialize_prod(b"python-test-app", None, 1), "initialize")
    must(kov.kov_sim_device_lifecycle(device, kov.KOV_SIM_BECOME_ACTIVE), "active")
    check(wait(lambda: "home-banner" in kov.text(kov.kov_inapp_decision_report, b"Home")), "campaigns fetched")

    # Events, attributes, and what is refused.
    must(kov.kov_track_event(b"PRODUCT_VIEWED", json.dumps({"sku": "P1", "quantity": 2}).encode()), "event")
    must(kov.kov_set_user_attribute(b"plan", b'"silver"'), "attribute")
    check(kov.kov_track_event(b"LIST", b"[1]") == kov.KOV_INVALID_JSON, "attributes must be an object")
    check(b"has to be a NSDictionary" in kov.kov_last_error(), "the SDK's words for it")
    check(kov.kov_track_event(b"NUL", b'{"k": "a\\u0000b"}') == kov.KOV_REFUSED, "the SDK refuses a NUL")
    check(kov.kov_last_error() == b"Kovantis - exception is a key or value holds a NUL character, which cannot be "
                                  b"stored", "the line the SDK logged: %r" % kov.kov_last_error())

    # Push registration, the inbox.
    must(kov.kov_register_for_remote_notifications(None, None, 1), "push registration")
    check(wait(lambda: state["token"]), "the token reached the SDK")
    fetched = {}
    must(kov.kov_inbox_fetch(callback("kov_bool_callback", lambda _c, v: fetched.setdefault("v", v)), None), "fetch")
    check(wait(lambda: "v" in fetched) and fetched["v"] == 1, "the inbox fetch was answered")
    messages = json.loads(kov.text(kov.kov_inbox_messages))
    check([m["cid"] for m in messages] == ["welcome"] and not messages[0].get("isRead"), "one unread message")
    must(kov.kov_inbox_mark_read(b"welcome"), "mark read")
    check(json.loads(kov.text(kov.kov_inbox_messages))[0].get("isRead") is True, "read now")

    # The triggered in-app, shown and tapped.
    def clicked(_ctx, _widget, screen, data):
        state["clicked"] = (screen.decode(), json.loads(data))

    no_callback = kov.type("kov_json_callback")()  # a null function pointer
    must(kov.kov_set_inapp_callbacks(callback("kov_inapp_clicked_callback", clicked), no_callback, None), "callbacks")
    must(kov.kov_track_event(b"ADD_TO_CART", None), "trigger")
    check(wait(lambda: kov.text(kov.kov_sim_device_presented_screen, device) != "null"), "the in-app is shown")
    shown = json.loads(kov.text(kov.kov_sim_device_presented_screen, device))

    def tags(view):
        yield view.get("text"), view.get("tag")
        for child in view.get("children", []):
            yield from tags(child)

    button = dict(tags(shown)).get("Add")
    check(button is not None, "the in-app has its button")
    must(kov.kov_sim_device_tap_view(device, button or 0), "tap")
    check(wait(lambda: state["clicked"] is not None) and state["clicked"] == ("Cart", {"from": "offer"}),
          "the tap reached the app: %r" % (state["clicked"],))

    # A push opened from the background with a deep link.
    must(kov.kov_sim_device_lifecycle(device, kov.KOV_SIM_RESIGN_ACTIVE), "resign")
    must(kov.kov_sim_device_lifecycle(device, kov.KOV_SIM_ENTER_BACKGROUND), "background")
    push = {"aps": {"alert": "Shoes"}, "kovantis": {"cid": "py-push"}, "app_extra": {"kov_deeplink": "kovtest://py"}}
    heard = ctypes.c_int()
    must(kov.kov_sim_device_open_push(device, json.dumps(push).encode(), None, ctypes.byref(heard)), "open push")
    check(heard.value == 1, "the host's delegate heard the tap")

    def opened():
        record = json.loads(kov.text(kov.kov_sim_device_screen_record, device))
        return any(e["kind"] == "openURL" and e.get("url") == "kovtest://py" for e in record)

    check(wait(opened), "the deep link was opened")

    # Everything delivered; what the service stored.
    delivered = False
    for _ in range(20):
        result = {}
        must(kov.kov_flush(callback("kov_bool_callback", lambda _c, v: result.setdefault("v", v)), None), "flush")
        if not wait(lambda: "v" in result) or result["v"] == 1:
            delivered = result.get("v") == 1
            break
    check(delivered, "everything was delivered")
    events = json.loads(kov.text(kov.kov_emulator_inspect, emulator, b"events", None))
    by_name = {}
    for e in events:
        by_name.setdefault(e["name"], []).append(e["event"])
    check(by_name.get("PRODUCT_VIEWED", [{}])[0].get("EVENT_ATTRS") == {"sku": "P1", "quantity": 2}, "the event")
    check("LIST" not in by_name and "NUL" not in by_name, "refused events stayed on the device")
    check(any(a.get("EVENT_ATTRS", {}).get("plan") == "silver" for a in by_name.get("EVENT_ACTION_USER_ATTRIBUTE", [])),
          "the user attribute")
    campaigns = {c["cid"]: c for c in json.loads(kov.text(kov.kov_emulator_inspect, emulator, b"campaign_events", None))}
    check(campaigns.get("py-push", {}).get("push_clicked") == 1, "the push's click")
    check(campaigns.get("cart-offer", {}).get("inapp_clicked") == 1, "the in-app's click")

    kov.kov_emulator_stop(emulator)
    print("%d functions declared from the headers; %s" % (len(kov.header.functions),
                                                          "%d check(s) failed" % len(failures) if failures else "ok"))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
