"""The application of the tests in FastAPI: a page, uploads, events, and a folder whose URL ends in a slash."""

import asyncio
import hashlib

from fastapi import FastAPI, Request
from fastapi.responses import PlainTextResponse, StreamingResponse

app = FastAPI()
go_on = asyncio.Event()


@app.get("/", response_class=PlainTextResponse)
async def page():
    return "This is FastAPI.\n"


@app.get("/folder/", response_class=PlainTextResponse)
async def folder():
    return "This is the folder.\n"


@app.post("/upload", response_class=PlainTextResponse)
async def upload(request: Request):
    length, digest = 0, hashlib.sha256()
    async for data in request.stream():
        length += len(data)
        digest.update(data)
    return f"{length} {digest.hexdigest()}"


async def stream_events():
    yield "data: first\n\n"
    await asyncio.wait_for(go_on.wait(), 15)
    yield "data: second\n\n"


@app.get("/events")
async def events():
    return StreamingResponse(stream_events(), media_type="text/event-stream")


@app.post("/next", response_class=PlainTextResponse)
async def send_the_second_event():
    go_on.set()
    return ""
