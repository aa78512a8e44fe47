#pragma once
#include <QWidget>

class QLabel;

namespace corv {

// The small frameless status window of an apply run. Hidden until the first status text.
class UpdateSplash : public QWidget {
public:
    UpdateSplash();
    ~UpdateSplash() override;

    // Sets the status text, shows and centres the window the first time, raises it and
    // lets pending events run so it repaints while the session works synchronously.
    void showStatus(const QString& text);

private:
    QLabel* statusLabel = nullptr;
};

} // namespace corv
