// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace bonkwell {

// The user's preferences store: one typed value per key, kept across runs.
// A binary value lives in a file named after the key in the store's folder, holding exactly
// the value's bytes; a text value lives in "<key>.string". Writing one kind removes the other,
// so a key holds either binary data or a string, never both.
// Writes are atomic and durable: a temporary file in the same folder is written, synced and
// renamed over the target, then the folder is synced. A killed writer leaves either the old
// or the new value, plus at worst a stray temporary file that removeStrayTemporaries() clears.
class PreferencesStore {
  public:
    // Uses $XDG_CONFIG_HOME/Bonkwell (default ~/.config/Bonkwell).
    PreferencesStore();
    explicit PreferencesStore(QString directory);
    virtual ~PreferencesStore() = default;
    PreferencesStore(const PreferencesStore&) = delete;
    PreferencesStore& operator=(const PreferencesStore&) = delete;

    static QString standardDirectory();

    const QString& directory() const { return directory_; }
    QString pathForKey(const QString& key) const;

    // The binary value under `key`; empty when there is none, when the key holds a string,
    // or when the file cannot be read.
    virtual std::optional<QByteArray> data(const QString& key) const;
    std::optional<QString> string(const QString& key) const;

    // Return false with a one-line reason in `error` when the value could not be stored;
    // the previous value is then left as it was.
    virtual bool setData(const QString& key, const QByteArray& bytes, QString* error = nullptr);
    bool setString(const QString& key, const QString& value, QString* error = nullptr);

    // Deletes temporary files that an interrupted write left behind; returns how many.
    int removeStrayTemporaries();

  private:
    bool writeFile(const QString& fileName, const QByteArray& bytes, QString* error);
    static std::optional<QByteArray> readRegularFile(const QString& path);

    QString directory_;
};

}  // namespace bonkwell
