"""Between zebra and encapd: passes each connection on, and writes what zebra sent on it to a file."""

import os
import socket
import threading


class Tee:
    def __init__(self, port, encapd_port, directory):
        os.makedirs(directory, exist_ok=True)
        self.encapd_port = encapd_port
        self.directory = directory
        self.scenario = "start"  # the one that runs, for the names of the files
        self.connections = 0
        listener = socket.create_server(("127.0.0.1", port))
        threading.Thread(target=self.serve, args=[listener], daemon=True).start()

    def serve(self, listener):
        while True:
            router, _ = listener.accept()
            try:
                encapd = socket.create_connection(("127.0.0.1", self.encapd_port))
            except OSError:
                router.close()  # encapd is away: zebra tries again
                continue
            self.connections += 1
            path = f"{self.directory}/{self.connections:02}-{self.scenario}.fpm"
            threading.Thread(target=self.copy, args=[router, encapd, path], daemon=True).start()
            threading.Thread(target=self.watch, args=[encapd, router], daemon=True).start()

    @staticmethod
    def copy(router, encapd, path):
        with open(path, "wb", buffering=0) as file:
            try:
                while data := router.recv(1 << 16):
                    file.write(data)
                    encapd.sendall(data)
            except OSError:
                pass  # encapd or zebra has ended
        end(encapd)

    @staticmethod
    def watch(encapd, router):
        """encapd sends nothing: when something can be read, it has closed the connection."""
        try:
            encapd.recv(1)
        except OSError:
            pass
        end(router)


def end(connection):
    """Also wakes the thread that reads from it."""
    try:
        connection.shutdown(socket.SHUT_RDWR)
    except OSError:
        pass
