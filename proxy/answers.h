/* The fixed answers of the proxies themselves, complete with their heads. The echo page is not fixed: see
 * reverse_proxy. */
#pragma once

inline constexpr char not_found_answer[] =
    "HTTP/1.1 404 Not Found\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n\r\n";

// It has no length: the connection closes after it.
inline constexpr char bad_gateway_answer[] =
    "HTTP/1.1 502 Bad Gateway\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\nUnable to connect";

inline constexpr char tunnel_answer[] = "HTTP/1.1 200 OK\r\n\r\n";
