// The exact bytes of the built-in not-found page, written out by hand.
#pragma once

#include <string>

inline const std::string NOT_FOUND_PAGE =
    "<!DOCTYPE html>\t\t<html>\t\t\t\t<head>\t\t<meta charset=\"UTF-8\">\t\t"
    "<meta name=\"apple-mobile-web-app-capable\" content=\"yes\">\t\t"
    "<meta name=\"apple-mobile-web-app-status-bar-style\" content=\"black-translucent\">\t\t"
    "<meta name=\"viewport\" content=\"user-scalable=no\">\t\t<link rel=\"icon\" href=\"icon/icon.png\" "
    "type=\"image/png\">\t\t<link rel=\"apple-touch-icon\" href=\"icon/icon.png\">\t\t<title>404 Not Found</title>\t\t"
    "</head>\t\t\t\t<body>\t\t<h1>404 Not Found</h1><br><br>Varnok HTTP Server v0.7.1 by "
    "<a href=\"https://varnok.example/\" target=\"_blank\">Varnok</a>\t\t</body>\t\t</html>\t\t";
