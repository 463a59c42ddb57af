<?php
// The application of the tests in PHP: a page, uploads and an absolute redirect.

switch (parse_url($_SERVER["REQUEST_URI"], PHP_URL_PATH)) {
    case "/":
        echo "This is PHP.\n";
        break;
    case "/upload":
        $body = file_get_contents("php://input");
        echo strlen($body), " ", hash("sha256", $body);
        break;
    case "/folder":
        $scheme = empty($_SERVER["HTTPS"]) ? "http" : "https";
        header("Location: $scheme://$_SERVER[HTTP_HOST]/folder/");
        break;
    case "/folder/":
        echo "This is the folder.\n";
        break;
    default:
        http_response_code(404);
}
