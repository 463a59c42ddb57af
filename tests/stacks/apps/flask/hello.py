"""The application of the tests in Flask: a page, uploads, events, and a folder whose URL ends in a slash."""

import hashlib
import threading

from flask import Flask, Response, request

app = Flask(__name__)
go_on = threading.Event()


@app.get("/")
def page():
    return "This is Flask.\n"


@app.get("/folder/")
def folder():
    return "This is the folder.\n"


@app.post("/upload")
def upload():
    length, digest = 0, hashlib.sha256()
    while data := request.stream.read(65536):
        length += len(data)
        digest.update(data)
    return f"{length} {digest.hexdigest()}"


@app.get("/events")
def events():
    def stream():
        yield "data: first\n\n"
        go_on.wait(15)
        yield "data: second\n\n"
    return Response(stream(), mimetype="text/event-stream")


@app.post("/next")
def send_the_second_event():
    go_on.set()
    return ""
