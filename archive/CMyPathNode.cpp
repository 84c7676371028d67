#include "archive/CMyPathNode.h"

#include <vector>

namespace {

std::vector<CStdStr> components(const CStdStr& path) {
    std::vector<CStdStr> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == CStdStr::npos) slash = path.size();
        if (slash > start) parts.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    return parts;
}

}  // namespace

CMyPathNode::CMyPathNode(const CStdStr& fullPath) : m_fullPath(fullPath) {
    size_t slash = fullPath.rfind('/');
    m_name = slash == CStdStr::npos ? CStdStr("noname") : CStdStr(fullPath.substr(slash + 1));
}

CStdStr CMyPathNode::GetRelativePath() const {
    // Links are acyclic (the tree refuses a cycle), so the walk ends.
    std::vector<const CMyPathNode*> chain;
    for (const CMyPathNode* n = this; n; n = n->m_parent) chain.push_back(n);
    CStdStr result;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        if (!result.empty()) result += "/";
        result += (*it)->m_name;
    }
    return result;
}

int CMyPathNode::GetDistance(const CMyPathNode* other) const {
    std::vector<CStdStr> a = components(m_fullPath), b = components(other->m_fullPath);
    int shared = 0;
    while (static_cast<size_t>(shared) < a.size() && static_cast<size_t>(shared) < b.size() &&
           a[shared].EqualsNoCase(b[shared]))
        ++shared;
    return shared;
}

CStdStr CMyPathNode::GetCommonFolder(const CMyPathNode* other) const {
    std::vector<CStdStr> a = components(m_fullPath), b = components(other->m_fullPath);
    CStdStr common;
    for (size_t i = 0; i < a.size() && i < b.size() && a[i].EqualsNoCase(b[i]); ++i) common += "/" + a[i];
    return common;
}
