"""A panel in Python that joins the demo device.

It asks the controller for readings, hears the alarm that is broadcast to all, and is told what the operator changes in
the settings. It ends when the controller has ended, or with Ctrl-C.

    scripts/demo --seconds 20 &
    examples/python/run panel.py
"""

import asyncio
import logging
import os
import struct
import sys

import qor

MSG_QUERY = 0x110  # sent to the controller: answers with the last reading
MSG_ALARM = 0x140  # broadcast: wparam is 1 for raised, 0 for over; lparam the memory in use
READING = struct.Struct("=4I")  # number, processor, memory in permille, load in hundredths; words of 32 bits everywhere

PERIOD = 0.5
PATIENCE = 20.0

thread = qor.Thread("python.panel")


def say(text):
    """One line of the panel."""
    print("python |", text, flush=True)


@thread.on(MSG_ALARM)
def alarm(message):
    """The alarm of all processes."""
    say(f"{'ALARM' if message.wparam else 'alarm over'}: memory use {message.lparam / 10:.1f} %")


def settings_changed(section):
    """A section of the settings was changed and flushed by somebody."""
    say(f"settings: [{section.name}] " + ", ".join(f"{key} = {value}" for key, value in section.items()))


async def show_readings(controller):
    """A row of the table again and again, as long as there is a controller."""
    rows = qor.Accumulator("python.panel.rows")  # goes on where the last run has ended
    while True:
        try:
            reply = await controller.send_async(MSG_QUERY, timeout=1.0)
        except qor.ThreadGoneError:
            say("the controller has ended")
            return thread.quit()
        except qor.ReplyTimeoutError:
            say("the controller is busy")
            continue
        if len(reply.data) == READING.size:
            number, processor, memory, load = READING.unpack(reply.data)
            say(
                f"row {rows.step()}: reading {number}, processor {processor / 10:.1f} %, memory {memory / 10:.1f} %, "
                f"load {load / 100:.2f}"
            )
        await asyncio.sleep(PERIOD)


async def main():
    """Joins, works until the end, and leaves."""
    try:
        controller = qor.find("device.controller", timeout=PATIENCE)
    except qor.ThreadGoneError as error:
        sys.exit(f"{error}: start scripts/demo first")
    settings = qor.Registry(os.path.expanduser("~/qor-device.ini"))
    with thread:
        say(f'device "{settings.section("Device").get("name", "nameless")}"')
        for name in ("Sampler", "Alarm"):
            settings.section(name).watch(settings_changed)
        rows = asyncio.create_task(show_readings(controller))
        try:
            return await thread.serve()
        finally:
            rows.cancel()


if __name__ == "__main__":
    logging.basicConfig(handlers=[qor.TraceHandler()], level=logging.INFO)
    qor.set_trace_author("PYP")
    try:
        sys.exit(asyncio.run(main()))
    except KeyboardInterrupt:
        sys.exit(130)
