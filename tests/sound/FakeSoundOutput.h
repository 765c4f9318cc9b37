// SPDX-License-Identifier: GPL-3.0-or-later
// A sound output that records what it was asked to play instead of playing it.
#pragma once

#include "SoundOutput.h"

#include <QFileInfo>
#include <QString>
#include <QStringList>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace bonkwell::test {

class FakeSoundOutput : public SoundOutput {
  public:
    struct Played {
        QString file;  // file name only
        float gain;
    };

    // Shared with the test, which keeps it after the player took the output.
    struct Record {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<Played> played;
        std::vector<std::shared_ptr<std::atomic<bool>>> playing;  // one per voice
        int voicesAlive = 0;
        int idleCalls = 0;
        QStringList failingNames;    // these fail with "cannot decode"
        bool blockNextPlay = false;  // the next play waits until released
        bool released = false;

        std::vector<Played> snapshot() {
            std::lock_guard lock(mutex);
            return played;
        }
        QStringList names() {
            QStringList out;
            for (const Played& p : snapshot()) {
                out << p.file;
            }
            return out;
        }
        void release() {
            std::lock_guard lock(mutex);
            released = true;
            changed.notify_all();
        }
        void finishAll() {
            std::lock_guard lock(mutex);
            for (auto& flag : playing) {
                *flag = false;
            }
        }
    };

    explicit FakeSoundOutput(std::shared_ptr<Record> record) : record_(std::move(record)) {}

    std::unique_ptr<Voice> play(const QString& path, float gain, QString& error) override {
        std::unique_lock lock(record_->mutex);
        const QString name = QFileInfo(path).fileName();
        if (record_->failingNames.contains(name)) {
            error = QStringLiteral("cannot decode");
            return nullptr;
        }
        record_->played.push_back({name, gain});
        if (record_->blockNextPlay) {
            record_->blockNextPlay = false;
            record_->changed.notify_all();
            record_->changed.wait(lock, [this] { return record_->released; });
        }
        auto flag = std::make_shared<std::atomic<bool>>(true);
        record_->playing.push_back(flag);
        ++record_->voicesAlive;
        record_->changed.notify_all();
        return std::make_unique<FakeVoice>(record_, flag);
    }

    void goIdle() override {
        std::lock_guard lock(record_->mutex);
        ++record_->idleCalls;
        record_->changed.notify_all();
    }

  private:
    class FakeVoice : public Voice {
      public:
        FakeVoice(std::shared_ptr<Record> record, std::shared_ptr<std::atomic<bool>> flag)
            : record_(std::move(record)), flag_(std::move(flag)) {}
        ~FakeVoice() override {
            std::lock_guard lock(record_->mutex);
            --record_->voicesAlive;
        }
        bool isPlaying() const override { return *flag_; }

      private:
        std::shared_ptr<Record> record_;
        std::shared_ptr<std::atomic<bool>> flag_;
    };

    std::shared_ptr<Record> record_;
};

}  // namespace bonkwell::test
