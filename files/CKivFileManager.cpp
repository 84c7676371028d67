#include "files/CKivFileManager.h"

CKivFileManager::CKivFileManager(CabSatellite* satellite) : m_satellite(satellite), m_prefix("F") {}

CKivFileManager::~CKivFileManager() = default;
