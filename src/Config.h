#pragma once

#include "ConfigDocument.h"
#include "ConfigImpl.h"
#include "Singleton.h"

/// A holder of the configuration for the span of one call (or the whole run), together with the
/// default values and the key names of the document, which are those of `ConfigDocument`.
///
/// Any number of them, on any thread; the configuration lives as long as one of them.
class Config : public ConfigDocument {
  public:
    ConfigImpl* operator->() const { return m_impl.get(); }
    ConfigImpl& operator*() const { return *m_impl; }

  private:
    Singleton<ConfigImpl> m_impl;
};
