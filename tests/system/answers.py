"""The answers that mivo itself gives, byte for byte."""

NOT_FOUND = b"HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n\r\n"
BAD_GATEWAY = (b"HTTP/1.1 502 Bad Gateway\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\n"
               b"Unable to connect")


def echo_page(head, address=b"127.0.0.1"):
    body = head + b"Your IPv4 address is: " + address
    return (b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: %d\r\n\r\n" % len(body)) + body
