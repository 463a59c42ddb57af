"""The application of the tests in Django: a page, uploads, events, and an absolute redirect."""

import hashlib
import threading

from django.http import HttpResponse, HttpResponseRedirect, StreamingHttpResponse
from django.urls import path

go_on = threading.Event()


def page(_):
    return HttpResponse("This is Django.\n")


def folder(_):
    return HttpResponse("This is the folder.\n")


def redirect(request):
    return HttpResponseRedirect(request.build_absolute_uri("/folder/"))


def upload(request):
    length, digest = 0, hashlib.sha256()
    while data := request.read(65536):
        length += len(data)
        digest.update(data)
    return HttpResponse(f"{length} {digest.hexdigest()}")


def stream_events():
    yield "data: first\n\n"
    go_on.wait(15)
    yield "data: second\n\n"


def events(_):
    return StreamingHttpResponse(stream_events(), content_type="text/event-stream")


def send_the_second_event(_):
    go_on.set()
    return HttpResponse("")


urlpatterns = [path("", page), path("folder/", folder), path("upload", upload), path("events", events),
               path("next", send_the_second_event), path("folder", redirect)]
