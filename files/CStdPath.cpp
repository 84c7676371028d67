#include "files/CStdPath.h"

#include <boost/filesystem/path.hpp>

CStdPath& CStdPath::AppendPath(const CStdStr& part) {
    boost::filesystem::path joined(static_cast<const std::string&>(*this));
    joined /= static_cast<const std::string&>(part);
    assign(joined.string());
    return *this;
}
