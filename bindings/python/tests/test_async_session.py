"""The client for asyncio, against a running router."""

import asyncio
import signal
import unittest

import tavrix

from .system import PATIENCE, System


class AsyncSessionTest(unittest.IsolatedAsyncioTestCase):
    async def asyncSetUp(self):
        self.system = self.enterContext(System())
        self.router = self.system.start_router()

    async def open(self, **options):
        return await self.enterAsyncContext(tavrix.AsyncSession(self.system.session, **options))

    async def registered(self, **handlers):
        service = await self.open()
        await service.register("benchd", {f"bench.{name}": handler for name, handler in handlers.items()})
        return service


class AsyncCalls(AsyncSessionTest):
    async def test_are_in_flight_together_and_answered_in_any_order(self):
        turns = {number: asyncio.Event() for number in range(3)}

        async def say(params):
            await turns[params["n"]].wait()
            return params["n"]

        await self.registered(Say=say)
        session = await self.open()
        calls = [asyncio.create_task(session.call("bench.Say", {"n": number})) for number in range(3)]
        for number in (2, 0, 1):
            turns[number].set()
            self.assertEqual(await asyncio.wait_for(calls[number], PATIENCE), number)

    async def test_give_errors_and_go_on(self):
        self.system.start_ports()
        session = await self.open()
        with self.assertRaisesRegex(tavrix.CallError, "port_id"):
            await session.call("ports.Get", {"port_id": 5})
        results = await session.batch([("ports.Get", {"port_id": "d1"}), ("ports.Gte", None)])
        self.assertEqual(results[0]["ports"][0]["port_id"], "d1")
        self.assertEqual(results[1].code, -32601)
        self.assertEqual(await session.batch([]), [])

    async def test_end_when_their_time_is_over(self):
        never = asyncio.Event()
        await self.registered(Never=lambda _: never.wait(), Echo=lambda params: params)
        session = await self.open(timeout=0.05)
        with self.assertRaises(tavrix.CallTimeout):
            await session.call("bench.Never")
        self.assertEqual(await session.call("bench.Echo", {"n": 1}, timeout=PATIENCE), {"n": 1})

    async def test_end_when_they_are_cancelled(self):
        asked = asyncio.Event()
        never = asyncio.Event()

        async def wait(_):
            asked.set()
            await never.wait()

        await self.registered(Wait=wait, Echo=lambda params: params)
        session = await self.open()
        call = asyncio.create_task(session.call("bench.Wait"))
        await asyncio.wait_for(asked.wait(), PATIENCE)
        call.cancel()
        with self.assertRaises(asyncio.CancelledError):
            await call
        self.assertEqual(await session.call("bench.Echo", {}), {})

    async def test_end_all_when_the_router_goes(self):
        asked = asyncio.Event()
        never = asyncio.Event()

        async def wait(_):
            asked.set()
            await never.wait()

        service = await self.registered(Wait=wait)
        session = await self.open()
        calls = [asyncio.create_task(session.call("bench.Wait")) for _ in range(3)]
        subscription = await session.subscribe("bench.*")
        await asyncio.wait_for(asked.wait(), PATIENCE)
        self.router.send_signal(signal.SIGKILL)
        for call in calls:
            with self.assertRaises(tavrix.Disconnected):
                await asyncio.wait_for(call, PATIENCE)
        with self.assertRaises(tavrix.Disconnected):
            await subscription.get(PATIENCE)
        with self.assertRaises(tavrix.Disconnected):
            await session.call("router.Status")
        await asyncio.wait_for(service.wait_closed(), PATIENCE)

    async def test_need_a_router(self):
        with self.assertRaisesRegex(tavrix.Disconnected, "is tavrix-routerd running"):
            await tavrix.AsyncSession("/nonexistent/s.sock").connect()
        with self.assertRaisesRegex(tavrix.Disconnected, "await connect"):
            await tavrix.AsyncSession(self.system.session).call("router.Status")


class AsyncNotifications(AsyncSessionTest):
    async def test_reach_those_who_subscribed(self):
        service = await self.registered(Echo=lambda params: params)
        session = await self.open()
        async with await session.subscribe("bench.*") as subscription:
            for number in range(3):
                await service.notify("bench.Count", {"n": number})
            heard = []
            async for notification in subscription:
                heard.append(notification.params["n"])
                if len(heard) == 3:
                    break
            self.assertEqual(heard, [0, 1, 2])
            with self.assertRaises(TimeoutError):
                await subscription.get(0.05)
        self.assertEqual(session.lost, 0)

    async def test_that_nobody_takes_are_told_as_lost(self):
        service = await self.registered(Echo=lambda params: params)
        session = await self.open()
        async with await session.subscribe("bench.*") as subscription:
            for number in range(3000):
                await service.notify("bench.Count", {"n": number})
            await session.call("bench.Echo", {})  # comes after them
            count = 0
            while not isinstance(notification := await subscription.get(PATIENCE), tavrix.Lost):
                count += 1
            self.assertEqual(count + notification.count, 3000)

    async def test_need_a_registered_service(self):
        with self.assertRaisesRegex(RuntimeError, "register"):
            await (await self.open()).notify("bench.One")


class AsyncServices(AsyncSessionTest):
    async def test_refuse_and_fail(self):
        async def refuse(_):
            raise tavrix.CallError(-32602, "Invalid parameter(s)", {"message": "n: none is good"})

        await self.registered(Refuse=refuse, Fail=lambda params: params["absent"])
        session = await self.open()
        with self.assertRaisesRegex(tavrix.CallError, "n: none is good"):
            await session.call("bench.Refuse")
        with self.assertLogs("tavrix", "ERROR"), self.assertRaises(tavrix.CallError) as caught:
            await session.call("bench.Fail")
        self.assertEqual(caught.exception.code, -32603)

    async def test_that_the_router_refuses_may_try_again(self):
        await self.registered(Echo=lambda params: params)
        second = await self.open()
        with self.assertRaisesRegex(tavrix.CallError, "registered already"):
            await second.register("benchd", {"bench.Other": lambda params: params})
        await second.register("otherd", {"bench.Other": lambda params: params})
        self.assertEqual(await (await self.open()).call("bench.Other", {}), {})


if __name__ == "__main__":
    unittest.main()
