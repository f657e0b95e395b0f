"""A thread that answers, and a program that asks it."""

import threading

import qor

worker = qor.Thread("worker")


@worker.on(0x100)
def double(message):
    print("worker:", message.wparam)
    return message.wparam * 2  # what the sender gets


def work():
    with worker:
        worker.run()


threading.Thread(target=work).start()
peer = qor.find("worker", timeout=5)
peer.post(0x100, 20)  # does not wait
print("main:", peer.send(0x100, 21, timeout=1).result)
peer.quit()
