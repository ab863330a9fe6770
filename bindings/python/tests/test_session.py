"""The client that waits, against a running router."""

import json
import signal
import socket
import threading
import unittest

import tavrix

from .system import PATIENCE, System

FIRST_PORT = {"port_id": "c1-1"}


class PlayedRouter(threading.Thread):
    """Takes one session and answers its lines with what a function makes of them."""

    def __init__(self, path, answer):
        super().__init__()
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(path)
        self._listener.listen()
        self._answer = answer
        self.start()

    def run(self):
        connection, _ = self._listener.accept()
        self._listener.close()
        with connection, connection.makefile("rwb") as stream:
            for line in stream:
                stream.write(self._answer(json.loads(line)))
                stream.flush()


class SessionTest(unittest.TestCase):
    def setUp(self):
        self.system = self.enterContext(System())
        self.router = self.system.start_router()

    def open(self, **options):
        return self.enterContext(tavrix.Session(self.system.session, **options))

    def registered(self, name, handlers):
        """A service, answering in a thread of its own until the test ends."""
        service = tavrix.Session(self.system.session)
        service.register(name, handlers)
        stop = threading.Event()

        def serve():
            while not stop.is_set():
                service.serve(0.05)

        thread = threading.Thread(target=serve)
        thread.start()

        def end():
            stop.set()
            thread.join()
            service.close()

        self.addCleanup(end)
        return service


class Calls(SessionTest):
    def test_give_results_and_errors(self):
        self.system.start_ports()
        session = self.open()
        self.assertEqual(session.call("ports.Get", FIRST_PORT)["ports"][0]["port_id"], "c1-1")
        with self.assertRaises(tavrix.CallError) as caught:
            session.call("ports.Get", {"port_id": "c999-1"})
        self.assertEqual((caught.exception.code, caught.exception.message), (-32024, "An MZU ID was expected."))
        self.assertIn("port_id", str(caught.exception))
        self.assertEqual(session.call("ports.Get", FIRST_PORT)["ports"][0]["port_id"], "c1-1", "the session goes on")

    def test_in_a_batch_give_each_its_own_answer(self):
        self.system.start_ports()
        session = self.open()
        self.assertEqual(session.batch([]), [])
        calls = [("ports.Get", FIRST_PORT), ("ports.Gte", None), ("ports.Get", {"port_id": "d1"})]
        first, second, third = session.batch(calls)
        self.assertEqual((first["ports"][0]["port_id"], third["ports"][0]["port_id"]), ("c1-1", "d1"))
        self.assertIsInstance(second, tavrix.CallError)
        self.assertEqual(second.code, -32601)

    def test_end_when_their_time_is_over_and_the_late_answer_is_nobodys(self):
        gate = threading.Event()
        self.addCleanup(gate.set)
        self.registered("slowd", {"slow.Say": lambda params: gate.wait(PATIENCE) and params["n"]})
        session = self.open()
        with self.assertRaises(tavrix.CallTimeout) as caught:
            session.call("slow.Say", {"n": 1}, timeout=0.05)
        self.assertEqual(str(caught.exception), "Command timed out (-32005): no answer within 0.05 s")
        gate.set()
        self.assertEqual(session.call("slow.Say", {"n": 2}), 2)

    def test_end_when_the_router_says_that_nobody_answered(self):
        self.router.terminate()
        self.router.wait()
        self.system.start_router("--reply-timeout", "50")
        silent = self.open()
        silent.register("silentd", {"silent.Say": lambda _: 0})
        with self.assertRaises(tavrix.CallTimeout) as caught:
            self.open().call("silent.Say")
        self.assertIsNone(caught.exception.data, "the router's own words")

    def test_end_when_the_router_goes(self):
        session = self.open()
        self.router.send_signal(signal.SIGKILL)
        with self.assertRaises(tavrix.Disconnected):
            session.call("router.Status")
            session.call("router.Status")

    def test_pass_over_answers_that_nobody_asked_for(self):
        path = str(self.system.folder / "played.sock")
        stray = b'{"jsonrpc":"2.0","id":99,"result":1}\n{"jsonrpc":"2.0","id":"x","result":1}\n'
        router = PlayedRouter(path, lambda call: stray + json.dumps({"id": call["id"], "result": 5}).encode() + b"\n")
        with tavrix.Session(path) as session:
            self.assertEqual(session.call("a"), 5)
        router.join()


class Connecting(unittest.TestCase):
    def test_says_where_nobody_is_and_what_to_look_at(self):
        said = "no router at /nonexistent/s.sock .*is tavrix-routerd running"
        with self.assertRaisesRegex(tavrix.Disconnected, said):
            tavrix.Session("/nonexistent/s.sock")


class Notifications(SessionTest):
    def test_reach_those_who_subscribed(self):
        service = self.open()
        service.register("benchd", {"bench.Echo": lambda params: params})
        session = self.open()
        with session.subscribe("bench.*") as everything, session.subscribe("bench.Two") as second:
            for method in ("bench.One", "bench.Two", "other.Three"):
                service.notify(method, {"from": "é"})
            self.assertEqual(everything.get(PATIENCE), tavrix.Notification("bench.One", {"from": "é"}))
            self.assertEqual(second.get(PATIENCE).method, "bench.Two")
            self.assertEqual(next(iter(everything)).method, "bench.Two")
            with self.assertRaises(TimeoutError):
                everything.get(0.05)
        self.assertEqual(session.lost, 0)

    def test_stop_when_the_subscription_is_closed(self):
        service = self.open()
        service.register("benchd", {"bench.Echo": lambda params: params})
        session = self.open()
        session.subscribe("bench.One").close()
        kept = session.subscribe("bench.*")
        service.notify("bench.One")
        service.call("router.Status")  # what was said before it has been heard by then
        self.assertEqual(kept.get(PATIENCE).method, "bench.One")

    def test_that_nobody_reads_are_told_as_lost(self):
        service = self.open()
        service.register("benchd", {"bench.Echo": lambda params: params})
        session = self.open()
        with session.subscribe("bench.*") as subscription:
            dropped = False
            while not dropped:
                for _ in range(100):
                    service.notify("bench.Much", {"text": "x" * 8000})
                dropped = service.call("router.Status")["dropped"] > 0
            taken = subscription.get(PATIENCE)
            while not isinstance(taken, tavrix.Lost):
                taken = subscription.get(PATIENCE)
        self.assertGreater(taken.count, 0)
        self.assertEqual(session.lost, taken.count)

    def test_of_whom_the_router_does_not_know_are_refused_at_home(self):
        with self.assertRaisesRegex(RuntimeError, "register"):
            self.open().notify("bench.One")

    def test_with_a_pattern_that_the_router_refuses_leave_nothing_behind(self):
        session = self.open()
        with self.assertRaises(tavrix.CallError):
            session.subscribe("x" * 256)
        self.assertEqual(session.call("router.Status")["locked"], False)


class Services(SessionTest):
    def test_answer_with_results_refusals_and_failures(self):
        def refuse(_):
            raise tavrix.CallError(-32602, "Invalid parameter(s)", {"message": "n: none is good"})

        self.registered(
            "benchd",
            {"bench.Echo": lambda params: params, "bench.Refuse": refuse, "bench.Fail": lambda params: params["no"]},
        )
        session = self.open()
        self.assertEqual(session.call("bench.Echo", {"n": [1, None]}), {"n": [1, None]})
        with self.assertRaisesRegex(tavrix.CallError, "n: none is good"):
            session.call("bench.Refuse")
        with self.assertLogs("tavrix", "ERROR"), self.assertRaises(tavrix.CallError) as caught:
            session.call("bench.Fail")
        self.assertEqual(caught.exception.code, -32603)

    def test_take_and_give_more_than_a_clients_line(self):
        self.registered("benchd", {"bench.Big": lambda _: "x" * 300000})
        self.assertEqual(len(self.open().call("bench.Big")), 300000)

    def test_keep_their_name(self):
        self.registered("benchd", {"bench.Echo": lambda params: params})
        with self.assertRaisesRegex(tavrix.CallError, "registered already"):
            self.open().register("benchd", {"bench.Other": lambda params: params})

    def test_leave_rereading_the_log_level_to_those_that_have_one(self):
        self.system.start_ports()
        self.registered("benchd", {"bench.Echo": lambda params: params})
        session = self.open()
        session.call("logger.ReloadConf")
        self.assertEqual(session.call("bench.Echo", {}), {})

    def test_need_a_method(self):
        with self.assertRaises(ValueError):
            self.open().register("benchd", {})


if __name__ == "__main__":
    unittest.main()
