// The one unit that compiles Boost.Asio and its TLS streams.
#include <boost/asio/impl/src.hpp>

#include <boost/asio/ssl/impl/src.hpp>
