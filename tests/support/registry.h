// Values of the registry for the suites that look at a real one, taken back at the end.
#pragma once

#include "platform/windows/sys/text.h"

#include <QByteArray>

#include <functional>
#include <vector>

namespace korvane::test {

using windows_platform::wide;

class Registry
{
    Q_DISABLE_COPY_MOVE(Registry)

public:
    Registry() = default;
    ~Registry()
    {
        for (; !m_undo.empty(); m_undo.pop_back())
            m_undo.back()();
    }

    /// Sets a value in a key, which is made where it is missing, and then removed at the end.
    void set(HKEY root, REGSAM view, const QString& path, const QString& name, DWORD type,
             const QByteArray& data)
    {
        HKEY key = nullptr;
        DWORD made = 0;
        RegCreateKeyExW(root, wide(path), 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr, &key,
                        &made);
        RegSetValueExW(key, wide(name), 0, type, reinterpret_cast<const BYTE*>(data.constData()),
                       static_cast<DWORD>(data.size()));
        m_undo.emplace_back([=] {
            RegDeleteValueW(key, wide(name));
            RegCloseKey(key);
            if (made == REG_CREATED_NEW_KEY)
                RegDeleteKeyExW(root, wide(path), view, 0);
        });
    }
    void set(HKEY root, REGSAM view, const QString& path, const QString& name, const QString& text,
             DWORD type = REG_SZ)
    {
        const auto* data = reinterpret_cast<const char*>(text.utf16());
        set(root, view, path, name, type, QByteArray(data, (text.size() + 1) * 2));
    }

private:
    std::vector<std::function<void()>> m_undo;
};

} // namespace korvane::test
