#include "tee_console.h"

class tee_console::report : public update_report {
  public:
    report(update_report& a, update_report& b) : a_(a), b_(b) {}
    void step(const std::string& text) override {
        a_.step(text);
        b_.step(text);
    }
    void phase(const std::string& name) override {
        a_.phase(name);
        b_.phase(name);
    }
    void upload(uint64_t sent, uint64_t total, double seconds) override {
        a_.upload(sent, total, seconds);
        b_.upload(sent, total, seconds);
    }
    void entry(const log_entry& e) override {
        a_.entry(e);
        b_.entry(e);
    }
    void retry(const outcome& failed, int pause_s) override {
        a_.retry(failed, pause_s);
        b_.retry(failed, pause_s);
    }
    void finished(const outcome& result, double seconds) override {
        a_.finished(result, seconds);
        b_.finished(result, seconds);
    }

  private:
    update_report& a_;
    update_report& b_;
};

tee_console::tee_console(std::unique_ptr<console> first, std::unique_ptr<console> second)
    : first_(std::move(first)), second_(std::move(second)) {
    for (size_t i = 0; i < first_->size(); ++i)
        reports_.push_back(std::make_unique<report>(first_->device(i), second_->device(i)));
}

void tee_console::print(const std::string& text) {
    first_->print(text);
    second_->print(text);
}
