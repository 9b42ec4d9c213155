// The one unit that compiles Boost.Beast.
#include <boost/beast/src.hpp>
