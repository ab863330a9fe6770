"""What is said and heard on a session, byte for byte, without a socket."""

import json
import unittest

from tavrix import CallError, CallTimeout, Disconnected, Lost, Notification
from tavrix._protocol import (
    LARGEST_BATCH,
    LONGEST_ANSWER,
    LONGEST_CLIENT_LINE,
    MOST_QUEUED,
    Protocol,
    Refusal,
    Request,
    Response,
    channel_of,
    matches,
    registration,
)


def line(**members):
    return json.dumps({"jsonrpc": "2.0", **members}).encode() + b"\n"


class Requests(unittest.TestCase):
    def test_are_lines_with_ids_of_their_own(self):
        protocol = Protocol()
        self.assertEqual(
            protocol.request("ports.Get", {"port_id": "c1-1"}),
            (1, b'{"jsonrpc":"2.0","method":"ports.Get","id":1,"params":{"port_id":"c1-1"}}\n'),
        )
        self.assertEqual(protocol.request("mzu.List")[1], b'{"jsonrpc":"2.0","method":"mzu.List","id":2,"params":{}}\n')

    def test_are_ascii_whatever_they_hold(self):
        self.assertIn(rb'"\u00e9\ud83d\ude00\n"', Protocol().request("a", {"text": "é😀\n"})[1])

    def test_travel_together_as_an_array(self):
        numbers, said = Protocol().batch([("a", None), ("b", {"x": 1})])
        self.assertEqual(numbers, [1, 2])
        self.assertEqual([call["method"] for call in json.loads(said)], ["a", "b"])

    def test_are_refused_above_the_length_of_a_line(self):
        protocol = Protocol()
        around = len(protocol.request("a", {"text": ""})[1])
        fitting = "x" * (LONGEST_CLIENT_LINE - around)
        self.assertEqual(len(protocol.request("a", {"text": fitting})[1]), LONGEST_CLIENT_LINE)
        with self.assertRaisesRegex(ValueError, "65537 bytes.*65536"):
            protocol.request("a", {"text": fitting + "x"})

    def test_are_refused_when_json_has_no_word_for_a_value(self):
        with self.assertRaises(ValueError):
            Protocol().request("a", {"x": float("nan")})

    def test_are_refused_in_batches_of_none_or_too_many(self):
        self.assertEqual(len(Protocol().batch([("a", None)] * LARGEST_BATCH)[0]), 256)
        for count in (0, LARGEST_BATCH + 1):
            with self.assertRaisesRegex(ValueError, f"not {count}"):
                Protocol().batch([("a", None)] * count)


class Answers(unittest.TestCase):
    def test_carry_a_result(self):
        self.assertEqual(Protocol().feed(line(id=3, result=[1])), [Response(3, [1], None)])

    def test_carry_an_error_with_code_message_and_data(self):
        data = {"message": "port_id: 'x' is no port"}
        [event] = Protocol().feed(line(id=1, error={"code": -32602, "message": "Invalid parameter(s)", "data": data}))
        error = event.error
        self.assertEqual((error.code, error.message, error.data), (-32602, "Invalid parameter(s)", data))
        self.assertEqual(str(event.error), "Invalid parameter(s) (-32602): port_id: 'x' is no port")
        self.assertNotIsInstance(event.error, TimeoutError)

    def test_tell_the_reason_in_words(self):
        rows = (
            (None, "m (-1)"),
            ({"message": "short"}, "m (-1): short"),
            ({"message": "short", "reason": "n: 5 is not in 1 to 4"}, "m (-1): n: 5 is not in 1 to 4"),
            (["other"], "m (-1)"),
        )
        for data, text in rows:
            self.assertEqual(str(CallError(-1, "m", data)), text)

    def test_that_are_malformed_errors_are_errors_all_the_same(self):
        for member, code in (("text", -32603), ({"message": "m"}, -32603), ({"code": -7}, -7), (None, -32603)):
            [event] = Protocol().feed(line(id=1, error=member))
            self.assertEqual(event.error.code, code, member)

    def test_that_tell_of_a_timeout_are_timeouts(self):
        [event] = Protocol().feed(line(id=1, error={"code": -32005, "message": "Command timed out", "data": None}))
        self.assertIsInstance(event.error, CallTimeout)
        self.assertIsInstance(event.error, TimeoutError)

    def test_come_in_pieces_and_several_at_once(self):
        protocol, events = Protocol(), []
        for byte in line(id=1, result=0) + line(id=2, result=0):
            events += protocol.feed(bytes([byte]))
        self.assertEqual([event.id for event in events], [1, 2])
        self.assertEqual(len(protocol.feed(line(id=3, result=0) + line(id=4, result=0) + b'{"js')), 2)

    def test_of_a_batch_come_as_one_array(self):
        heard = b'[{"jsonrpc":"2.0","id":2,"result":0},{"jsonrpc":"2.0","id":1,"result":1}]\n'
        [first, second] = Protocol().feed(heard)
        self.assertEqual((first.id, second.id), (2, 1))

    def test_without_an_id_are_refusals(self):
        [event] = Protocol().feed(line(id=None, error={"code": -32600, "message": "Invalid Request", "data": None}))
        self.assertIsInstance(event, Refusal)

    def test_that_are_none_end_the_session(self):
        with self.assertRaisesRegex(Disconnected, "not JSON"):
            Protocol().feed(b"{\n")
        self.assertEqual(Protocol().feed(b"7\n"), [])

    def test_have_a_bound(self):
        protocol = Protocol()
        self.assertEqual(protocol.feed(b"[" * LONGEST_ANSWER), [])
        with self.assertRaises(Disconnected):
            protocol.feed(b"[")


class Subscriptions(unittest.TestCase):
    def test_get_what_their_patterns_match(self):
        protocol = Protocol()
        events, _ = protocol.open_inbox(["events.*"])
        exact, _ = protocol.open_inbox(["events.LinkChanged"])
        protocol.feed(line(method="events.LinkChanged", params={"n": 1}) + line(method="events.Other", params={}))
        self.assertEqual(events.take(), Notification("events.LinkChanged", {"n": 1}))
        self.assertEqual(events.take().method, "events.Other")
        self.assertEqual(exact.take().method, "events.LinkChanged")
        self.assertIsNone(exact.take())

    def test_match_names_and_beginnings(self):
        for pattern, method in (("a.B", "a.B"), ("a.*", "a.B"), ("*", "x")):
            self.assertTrue(matches(pattern, method), (pattern, method))
        for pattern, method in (("a.B", "a.Bc"), ("a.Bc", "a.B"), ("a.*", "ab")):
            self.assertFalse(matches(pattern, method), (pattern, method))

    def test_ask_the_router_for_what_is_new_and_give_back_what_nobody_needs(self):
        protocol = Protocol()
        first, asked = protocol.open_inbox(["a.*", "b", "b"])
        self.assertEqual(asked, ["a.*", "b"])
        second, asked = protocol.open_inbox(["b", "c"])
        self.assertEqual(asked, ["c"])
        self.assertEqual(protocol.close_inbox(first), ["a.*"])
        self.assertEqual(protocol.close_inbox(first), [])
        self.assertEqual(protocol.close_inbox(second), ["b", "c"])

    def test_need_a_pattern(self):
        with self.assertRaises(ValueError):
            Protocol().open_inbox([])

    def test_are_told_what_the_router_dropped(self):
        protocol = Protocol()
        inbox, _ = protocol.open_inbox(["a"])
        protocol.feed(line(method="router.Lost", params={"count": 3}))
        lost = inbox.take()
        self.assertIsInstance(lost, Lost)
        self.assertEqual((lost.method, lost.count, protocol.lost), ("router.Lost", 3, 3))

    def test_are_told_what_they_did_not_read(self):
        protocol = Protocol()
        inbox, _ = protocol.open_inbox(["a"])
        protocol.feed(line(method="a", params={}) * (MOST_QUEUED + 2))
        for _ in range(MOST_QUEUED):
            self.assertEqual(inbox.take(), Notification("a", {}))
        self.assertEqual(inbox.take().count, 2)
        self.assertIsNone(inbox.take())

    def test_are_told_of_losses_before_what_came_after_them(self):
        protocol = Protocol()
        inbox, _ = protocol.open_inbox(["*"])
        protocol.feed(line(method="a", params={}) * (MOST_QUEUED + 1) + line(method="router.Lost", params={"count": 4}))
        inbox.take()
        protocol.feed(line(method="b", params={}))
        taken = [inbox.take() for _ in range(MOST_QUEUED + 1)]
        self.assertEqual(taken[-2:], [Lost("router.Lost", {"count": 5}), Notification("b", {})])


class Services(unittest.TestCase):
    def test_register_on_the_channel_of_their_methods(self):
        rows = (
            ("ports.Get", "3a6f8f51-502f-4238-9638-29764ff1a8a4"),
            ("dhcp.Get", "3a6f8f51-502f-4238-9638-29764ff1a8a4"),
            ("energy.Get", "3a6f8f51-502f-4238-9638-29764ff1a8a4"),
            ("mzu.List", "3a6f8f51-502f-4238-9638-29764ff1a8a4"),
            ("events.Last", "505a5451-3ef2-4618-8087-9a22b800a510"),
            ("igmp.Get", "b4469f46-e963-42ef-9fd2-f978e73adc76"),
            ("bench.Echo", "30e493d7-9e02-41b6-97f5-21f2cc9cbbb3"),
            ("m.X", "30e493d7-9e02-41b6-97f5-21f2cc9cbbb3"),
            ("e.X", "30e493d7-9e02-41b6-97f5-21f2cc9cbbb3"),
        )
        for method, channel in rows:
            self.assertEqual(channel_of(method), channel, method)
            self.assertEqual(registration("x", [method])["channel"], channel)

    def test_have_methods_of_one_channel_only(self):
        with self.assertRaisesRegex(ValueError, "ports.Get and bench.Echo"):
            registration("x", ["ports.Get", "bench.Echo"])

    def test_are_asked_and_answer_under_the_methods_name(self):
        protocol = Protocol()
        [request] = protocol.feed(line(method="bench.Echo", id="2524546b", transaction_id=91, params={"x": 1}))
        self.assertEqual(request, Request("bench.Echo", {"x": 1}, 91))
        self.assertEqual(
            protocol.reply(request, 7), b'{"jsonrpc":"2.0","id":"bench.Echo","result":7,"transaction_id":91}\n'
        )
        refusal = json.loads(protocol.refuse(request, CallError(-32602, "no", {"message": "x"})))
        self.assertEqual(refusal["error"], {"code": -32602, "message": "no", "data": {"message": "x"}})


if __name__ == "__main__":
    unittest.main()
